#pragma once

#include <sys/epoll.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "base/callback.h"
#include "base/loop/loop_thread.h"
#include "base/shared.h"
#include "base/unique_fd.h"

namespace Base {

// A loop over one epoll(7) instance: posted tasks, scheduled tasks, descriptor watches and child
// exits, one thing at a time. Each round
//
//   1. runs the scheduled tasks that are due, then the posted ones until there are none left, those
//      that are posted meanwhile too: who posts to the loop from its own tasks without end holds up
//      everything else, and has to let the loop poll in between (see `PostToNextRound`);
//   2. waits for an event, a post or the next scheduled task;
//   3. posts the callback of every watch that is ready and of every child that has exited.
//
// When the loop ends it lets go of its watches, child callbacks and tasks without running them, so
// that what they hold does not outlive it. What is posted after that is kept for the next run.
//
// Threads: PostTask, PostScheduledTask, Stop and IsCurrentThread may be called from any thread.
//          Watches and children belong to the loop's thread while it runs.
// Errors:  what a task or callback throws is logged. Failed system calls throw ExceptionPosix.
class ThreadLinux final : public LoopThread {
 public:
  using WatchCallback = Shared<CallbackNoCopy<int, int>>;  // descriptor, epoll event bits
  using ChildCallback = Shared<CallbackNoCopy<int, int>>;  // process id, wait status

  ThreadLinux();

  void PostTask(Task task) override;
  void PostScheduledTask(std::int64_t delayMs, Task task) override;

  // Watches `fd` for `events`, epoll_ctl(2)'s bits, handed to the kernel as they are. The callback
  // is called with the bits that the kernel reports, each time it does, until `RemoveWatch`; it may
  // still come once after that, when the event was found before.
  void AddWatch(int fd, std::uint32_t events, WatchCallback callback);

  // Changes the events of a watch and keeps its callback.
  void UpdateWatch(int fd, std::uint32_t events);

  // Ends a watch; one that the kernel does not know is no error.
  void RemoveWatch(int fd);

  // Calls back, as a task, once the child `pid` has exited, with its wait status; at once where it
  // already has, or is no child of this process. Children are looked at when the loop wakes: a
  // loop with scheduled tasks does so at least once a second.
  void MonitorChildProcess(pid_t pid, ChildCallback callback);

  // Queues `task` for the next round, which does not wait for anything but looks at what is ready.
  // On the loop's thread only.
  void PostToNextRound(Task task);

  // The number of the current round. A task that finds the number unchanged since some earlier step
  // knows that the loop has not polled since. On the loop's thread only.
  std::uint64_t GetRound() const { return _round; }

 private:
  void Wake() override;
  void RunLoop() override;
  int GetTimeoutMs();
  void Wait();
  void ProcessWatches(std::span<epoll_event const> events);
  void ProcessWatch(epoll_event const& event);
  void ProcessChildSignal();
  void CheckChildren();
  bool CheckProcessExit(pid_t pid, int& status);
  void DispatchChildCallback(pid_t pid, int status);
  void DiscardAll();

  std::vector<Task> _nextRoundTasks;
  std::map<int, WatchCallback> _watches;
  std::map<pid_t, ChildCallback> _children;
  UniqueFd _epoll;
  UniqueFd _wakeEvent;
  int _childSignalFd = -1;  // no source of child signals is in use: exits are found by polling
  std::uint64_t _round = 0;
};

}  // namespace Base
