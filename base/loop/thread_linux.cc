#include "base/loop/thread_linux.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <limits>
#include <utility>
#include <vector>

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("thread_linux");

// A round has three steps: run tasks, wait, turn events into tasks. The tasks of step three run in
// step one of the next round, together with what other threads have posted meanwhile.
//
// Events become tasks because a callback may do anything: remove the watch whose event comes next
// in the array, close a descriptor, open another one with the same number. So the scan only looks
// callbacks up and posts them, and each task holds its callback. By the time the task runs, its
// watch may be gone; sockets and files expect that. Callbacks and posted tasks also share one queue
// that way, and one handler that logs what they throw.
//
// A wake is a write to an eventfd. The write makes an event, and the event waits in the kernel
// until the loop polls, so a post between the last look at the queue and the start of the wait is
// not lost. The eventfd is edge-triggered: every write is an event of its own, and nobody reads the
// counter. A task posted on the loop's own thread needs no wake, because the loop empties the queue
// before it waits. A scheduled task always needs one: it may be overdue when the loop computes its
// timeout, and an overdue task does not end the wait.
//
// Step one has no bound: it also runs what its own tasks post. `_nextRoundTasks` is for work that
// would never let it end. While there are such tasks, the loop polls with a timeout of 0.
//
// A reader removes EPOLLIN from its watch while it works and adds it again for its next read,
// mostly in the same round. So the kernel learns of removed events only before the wait
// (`NarrowWatches`): until then it reports nothing, and events that are back cost no system call.
//
// The end: `Stop` sets a flag and wakes, and the loop leaves after the round. It runs the tasks of
// the last events, as the kernel need not report an event again. It then discards tasks, watches
// and child callbacks in turn until none is left, as their destructors may post new ones.
//
// Deliberate, each with a comment where it happens: a task that becomes overdue just before the
// wait does not end it; the loop reports a child that a signal ended one look late; it looks for
// exits only when something else wakes it, as `_childSignalFd`, which would report them at once, is
// never set.

namespace Base {

namespace {

constexpr std::size_t maxEvents = 256;
constexpr int childPollMs = 1000;

}  // namespace

ThreadLinux::ThreadLinux() : LoopThread(traceModule) {
  _epoll.Reset(epoll_create1(EPOLL_CLOEXEC));
  if (!_epoll) {
    int const error = errno;
    TRACE_ERROR("Failed to create epoll", error);
    throw ExceptionPosix(error);
  }
  _wakeEvent.Reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!_wakeEvent) {
    int const error = errno;
    TRACE_ERROR("Failed to create epoll wake event", error);
    throw ExceptionPosix(error);
  }
  epoll_event event{};
  event.events = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLET;
  event.data.fd = _wakeEvent.Get();
  if (epoll_ctl(_epoll.Get(), EPOLL_CTL_ADD, _wakeEvent.Get(), &event) == -1) {
    int const error = errno;
    TRACE_WARNING("Failed to watch wake event", this, error);
    throw ExceptionPosix(error);
  }
  TRACE_VERBOSE("Thread created", this, _childSignalFd);
}

void ThreadLinux::PostTask(Task task) {
  Enqueue(std::move(task));
  if (!IsCurrentThread()) Wake();
}

void ThreadLinux::PostScheduledTask(std::int64_t delayMs, Task task) {
  Schedule(delayMs, std::move(task));
  // On the loop's thread too: a task that is overdue when the loop begins to wait does not end the
  // wait (see GetTimeoutMs).
  Wake();
}

void ThreadLinux::PostToNextRound(Task task) { _nextRoundTasks.push_back(std::move(task)); }

void ThreadLinux::Wake() {
  std::uint64_t const one = 1;
  if (write(_wakeEvent.Get(), &one, sizeof one) == -1) {
    int const error = errno;
    TRACE_WARNING("Failed to wake thread", this, error);
  }
}

void ThreadLinux::AddWatch(int fd, std::uint32_t events, WatchCallback callback) {
  if (!callback) {
    TRACE_ERROR("Attempt to add watch with invalid callback", this, fd, events);
    throw Exception("Invalid Callback");
  }
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (epoll_ctl(_epoll.Get(), EPOLL_CTL_ADD, fd, &event) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to add watch", this, fd, events, error);
    throw ExceptionPosix(error);
  }
  TRACE_VERBOSE("Added watch", this, fd, events);
  _watches.insert_or_assign(fd, Watch{std::move(callback), events, events});
}

void ThreadLinux::UpdateWatch(int fd, std::uint32_t events) {
  // With one of these, the kernel takes each change as a demand to report anew.
  constexpr std::uint32_t reportedOnce = EPOLLET | EPOLLONESHOT;
  auto const found = _watches.find(fd);
  bool const isNarrower = found != _watches.end() && (events & ~found->second.kernelEvents) == 0 &&
                          (found->second.kernelEvents & reportedOnce) == 0;
  if (isNarrower) {
    // While the kernel knows more events than the watch has, the descriptor is in the list already.
    if (found->second.events == found->second.kernelEvents) _narrowedFds.push_back(fd);
  } else {
    ModifyWatch(fd, events);
    if (found != _watches.end()) found->second.kernelEvents = events;
  }
  if (found != _watches.end()) found->second.events = events;
  TRACE_VERBOSE("Updated watch", this, fd, events);
}

void ThreadLinux::ModifyWatch(int fd, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (epoll_ctl(_epoll.Get(), EPOLL_CTL_MOD, fd, &event) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to update watch", this, fd, events, error);
    throw ExceptionPosix(error);
  }
}

void ThreadLinux::NarrowWatches() {
  for (int const fd : _narrowedFds) {
    auto const found = _watches.find(fd);
    if (found == _watches.end() || found->second.events == found->second.kernelEvents) continue;
    found->second.kernelEvents = found->second.events;
    try {
      ModifyWatch(fd, found->second.events);
    } catch (Exception const&) {
      // Logged. Somebody has closed the descriptor without ending its watch.
    }
  }
  _narrowedFds.clear();
}

void ThreadLinux::RemoveWatch(int fd) {
  _watches.erase(fd);
  if (epoll_ctl(_epoll.Get(), EPOLL_CTL_DEL, fd, nullptr) == -1 && errno != ENOENT) {
    int const error = errno;
    TRACE_ERROR("Failed to remove watch", this, fd, error);
    throw ExceptionPosix(error);
  }
  TRACE_VERBOSE("Removed watch", this, fd);
}

void ThreadLinux::MonitorChildProcess(pid_t pid, ChildCallback callback) {
  if (!callback) {
    TRACE_ERROR("Attempt to monitor child process with invalid callback", this, pid);
    throw Exception("Invalid Callback");
  }
  int status = 0;
  if (CheckProcessExit(pid, status)) {
    TRACE_VERBOSE("Dispatching callback for child process immediately since process has exited",
                  pid, status);
    PostTask(MakeCallback([callback, pid, status] { callback->Call(pid, status); }));
    return;
  }
  _children.insert_or_assign(pid, std::move(callback));
  TRACE_VERBOSE("Monitoring child process", pid, status);
}

void ThreadLinux::RunLoop() {
  do {
    try {
      RunRound();
    } catch (std::exception const& err) {
      // Out of memory. Tasks, watches and children are still there for the next round.
      TRACE_ERROR("Thread failed to finish a round. Will retry.", this, err);
    }
  } while (!IsStopping());
  RunTasks();  // those of the events of the last wait
  DiscardAll();
}

void ThreadLinux::RunRound() {
  ++_round;
  while (!_nextRoundTasks.empty()) {
    Enqueue(_nextRoundTasks.front());  // which may throw, and must not lose the task
    _nextRoundTasks.pop_front();
  }
  RunTasks();
  Wait();
  if (!_children.empty()) CheckChildren();
}

int ThreadLinux::GetTimeoutMs() {
  if (!_nextRoundTasks.empty()) return 0;
  auto const wakeTime = GetEarliestWakeTime();
  if (!wakeTime) return -1;
  // Rounded toward zero. Deliberate: there is no lower bound, so when a task became due more than a
  // millisecond ago, epoll_wait(2) gets a negative timeout and waits until another event.
  auto const remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
      *wakeTime - std::chrono::system_clock::now());
  auto const timeoutMs = static_cast<int>(std::clamp<std::int64_t>(
      remaining.count(), std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
  return timeoutMs > childPollMs && !_children.empty() ? childPollMs : timeoutMs;
}

void ThreadLinux::Wait() {
  NarrowWatches();
  std::array<epoll_event, maxEvents> events;
  int const count =
      epoll_wait(_epoll.Get(), events.data(), static_cast<int>(events.size()), GetTimeoutMs());
  if (count == -1) {
    int const error = errno;
    if (error == EINTR) {
      TRACE_DEBUG("Received interrupt", this);
    } else {
      TRACE_WARNING("Thread failed to wait. Will retry.", this, error);
    }
    return;
  }
  ProcessWatches(std::span(events).first(static_cast<std::size_t>(count)));
}

void ThreadLinux::ProcessWatches(std::span<epoll_event const> events) {
  for (epoll_event const& event : events) {
    try {
      ProcessWatch(event);
    } catch (std::exception const& err) {
      TRACE_VERBOSE("Failed to ProcessWatches", this, err);
    }
  }
}

void ThreadLinux::ProcessWatch(epoll_event const& event) {
  int const fd = event.data.fd;
  auto const events = static_cast<int>(event.events);
  if (fd == _wakeEvent.Get()) return;
  if (fd == _childSignalFd) {
    ProcessChildSignal();
    return;
  }
  auto const found = _watches.find(fd);
  if (found == _watches.end()) {
    TRACE_VERBOSE("Watched file not found", this, fd, events);
    return;
  }
  TRACE_DEBUG("Watched file ready", this, fd, events);
  PostTask(MakeCallback(
      [callback = found->second.callback, fd, events] { callback->Call(fd, events); }));
}

void ThreadLinux::ProcessChildSignal() {
  signalfd_siginfo info{};
  ssize_t const nr = read(_childSignalFd, &info, sizeof info);
  if (nr != static_cast<ssize_t>(sizeof info)) {
    TRACE_WARNING("Partial read of child signal", nr);
    return;
  }
  if (info.ssi_signo != SIGCHLD) {
    TRACE_WARNING("Received unexpected signal", Trace::As("ssi_signo", info.ssi_signo));
    return;
  }
  auto const pid = static_cast<pid_t>(info.ssi_pid);
  int status = 0;
  if (CheckProcessExit(pid, status)) {
    DispatchChildCallback(pid, status);
  } else {
    TRACE_VERBOSE("Child called back but has not exited yet", status);
  }
}

void ThreadLinux::CheckChildren() {
  std::vector<pid_t> pids;
  pids.reserve(_children.size());
  for (auto const& [pid, callback] : _children) pids.push_back(pid);
  for (pid_t const pid : pids) {
    try {
      int status = 0;
      if (CheckProcessExit(pid, status)) DispatchChildCallback(pid, status);
    } catch (Exception const& err) {
      TRACE_ERROR("Failed to check process exit", err, pid);
    }
  }
}

bool ThreadLinux::CheckProcessExit(pid_t pid, int& status) {
  pid_t const waitResult = waitpid(pid, &status, WNOHANG);
  if (waitResult == -1) {
    int const error = errno;
    if (error == ECHILD) {
      TRACE_DEBUG("Process does not exist", pid, status);
      return true;
    }
    TRACE_ERROR("Process wait failed", error, waitResult);
    throw ExceptionPosix(error);
  }
  // Deliberate: a child that a signal ended does not count as exited here, although this call has
  // reaped it. The next look finds that it does not exist (ECHILD) and reports it with status 0.
  bool const exited = waitResult > 0 && WIFEXITED(status);
  TRACE_DEBUG("Checked process has exited", waitResult, status, exited, pid);
  return exited;
}

void ThreadLinux::DispatchChildCallback(pid_t pid, int status) {
  auto const found = _children.find(pid);
  if (found == _children.end()) {
    TRACE_VERBOSE("No callback found for child process", pid);
    return;
  }
  TRACE_VERBOSE("Dispatching callback for child process", pid, status);
  PostTask(MakeCallback([callback = found->second, pid, status] { callback->Call(pid, status); }));
  TRACE_VERBOSE("Removing child process", pid);
  _children.erase(found);
}

void ThreadLinux::DiscardAll() {
  // Destructors of what is discarded may post tasks or add watches: repeat until nothing is left.
  bool mayBeMore = true;
  while (mayBeMore) {
    bool const wereNextRoundTasks = !_nextRoundTasks.empty();
    while (!_nextRoundTasks.empty()) {
      Task const task = std::move(_nextRoundTasks.front());
      _nextRoundTasks.pop_front();
    }
    auto const watches = std::exchange(_watches, {});
    auto const children = std::exchange(_children, {});
    for (auto const& [fd, watch] : watches) {
      // The kernel would go on reporting the descriptor when the loop runs again.
      epoll_ctl(_epoll.Get(), EPOLL_CTL_DEL, fd, nullptr);
    }
    mayBeMore = DiscardTasks() || wereNextRoundTasks || !watches.empty() || !children.empty();
  }
}

}  // namespace Base
