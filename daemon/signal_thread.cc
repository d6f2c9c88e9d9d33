#include "daemon/signal_thread.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "base/exception.h"
#include "process/shell_command.h"
#include "trace/crash/signal_safe_line.h"
#include "trace/trace.h"

TRACE_MODULE("main");

// A thread of its own and no signal handler, because a handler runs on a thread that may itself be
// what hangs: the kernel delivers a signal to a thread only when that thread's system call can be
// interrupted. The signal thread takes no lock, logs nothing and touches no file until the deadline
// has passed, so nothing that hangs elsewhere can hold it.
//
// The line at the deadline may hang, too, when the trace file is what does not answer. So yet
// another thread writes it, and the signal thread ends the process whether it is written or not:
// the end of a process ends threads that only a fatal signal can interrupt.

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr milliseconds endTime(30'000);  // an orderly end with a sanitizer takes its time
#else
constexpr milliseconds endTime(
    1700);  // leaves the rest of the 2 seconds to the line and to the exit
#endif
constexpr milliseconds lineTime(150);

// The signal thread uses them until the process has ended, so they are never closed.
int signalFd = -1;
int beginFd = -1;  // an eventfd: begin the deadline
std::array<int, 2> relay{-1, -1};
std::atomic<char const*> stage{"start"};

bool IsIgnored(int signalNumber) {
  struct sigaction action {};
  return sigaction(signalNumber, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void SetAction(int signalNumber, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  if (sigaction(signalNumber, &action, nullptr) == -1) throw Base::ExceptionPosix(errno);
}

void OnBrokenPipe(int /*signalNumber*/) {}

int Checked(int result) {
  if (result == -1) throw Base::ExceptionPosix(errno);
  return result;
}

sigset_t GetTerminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  // A blocked signal is kept even when it is ignored, so an ignored one must not be taken.
  if (!IsIgnored(SIGHUP)) sigaddset(&signals, SIGHUP);
  return signals;
}

[[noreturn]] void EndWithoutWaiting() {
  try {
    std::thread([] {
      Trace::WriteSignalSafeLine("main", Trace::levelWarning, "Ended without waiting", "for",
                                 stage.load(std::memory_order_relaxed));
      _exit(0);
    }).detach();
  } catch (std::system_error const&) {
    _exit(0);
  }
  std::this_thread::sleep_for(lineTime);
  _exit(0);
}

void PassOn(signalfd_siginfo const& signal) {
  Process::CancelShellCommands();
  auto const byte = static_cast<unsigned char>(signal.ssi_signo);
  // A full pipe already holds enough signals to end the daemon.
  static_cast<void>(!write(relay[1], &byte, sizeof byte));
}

void RunSignalThread() {
  std::optional<Clock::time_point> end;
  for (;;) {
    auto const left = std::chrono::ceil<milliseconds>(end.value_or(Clock::now()) - Clock::now());
    if (end && left.count() <= 0) EndWithoutWaiting();
    // Once the deadline has begun, `beginFd` would only repeat itself.
    std::array<pollfd, 2> sources{pollfd{.fd = signalFd, .events = POLLIN, .revents = 0},
                                  pollfd{.fd = end ? -1 : beginFd, .events = POLLIN, .revents = 0}};
    if (poll(sources.data(), sources.size(), end ? static_cast<int>(left.count()) : -1) <= 0)
      continue;
    if (!end) end = Clock::now() + endTime;
    signalfd_siginfo signal{};
    if (read(signalFd, &signal, sizeof signal) == sizeof signal) PassOn(signal);
  }
}

void ReadSignals(int fd, Base::Callback<int> const& onSignal) {
  std::array<unsigned char, 64> numbers{};
  ssize_t const count = read(fd, numbers.data(), numbers.size());
  for (ssize_t i = 0; i < count; ++i) onSignal.Call(numbers[static_cast<std::size_t>(i)]);
}

}  // namespace

void StartSignalThread() {
  Process::AllowCancelOfShellCommands();
  SetAction(SIGCHLD, SIG_DFL);
  sigset_t const signals = GetTerminationSignals();
  // On this thread, and so on all that it starts.
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signalFd = Checked(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
  beginFd = Checked(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  Checked(pipe2(relay.data(), O_NONBLOCK | O_CLOEXEC));
  try {
    std::thread(&RunSignalThread).detach();
  } catch (std::system_error const& err) {
    throw Base::ExceptionPosix(err.code().value());
  }
}

void SurviveBrokenPipes() { SetAction(SIGPIPE, &OnBrokenPipe); }

void RelayTermination(Base::ThreadLinux& loop, Base::Callback<int> onSignal) {
  loop.AddWatch(relay[0], EPOLLIN,
                Base::MakeCallback([onSignal = std::move(onSignal)](int fd, int /*events*/) {
                  ReadSignals(fd, onSignal);
                }));
}

void BeginEndDeadline() noexcept { eventfd_write(beginFd, 1); }

void SetEndStage(char const* name) noexcept { stage.store(name, std::memory_order_relaxed); }
