#pragma once

#include <sys/epoll.h>
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <vector>

#include "base/callback.h"
#include "base/loop/loop_thread.h"
#include "base/shared.h"
#include "base/unique_fd.h"

namespace Base {

// A loop over one epoll(7) instance, which also runs the callbacks of descriptor watches and of
// child exits. Each round
//
//   1. runs the tasks (see Thread);
//   2. waits for an event, a post or the next scheduled task;
//   3. posts the callback of every watch that is ready and of every child that has exited.
//
// A task that posts its successor keeps the loop in step 1, where it neither polls nor ends:
// endless work belongs in `PostToNextRound` or a StepBudget.
//
// When the loop ends, it runs the tasks once more after its last wait, so that no event that it has
// found is lost. Then it discards its watches and its child callbacks as it discards its tasks: the
// scheduled tasks that are not due, and those for the next round.
//
// Threads: those of Thread for what Thread declares, the loop's thread alone for the rest.
// Errors:  the loop logs what a callback throws. Out of memory, it logs an ERROR and begins its
//          next round. Failed system calls throw ExceptionPosix, an empty callback Exception
//          "Invalid Callback"; both after an ERROR line.
class ThreadLinux final : public LoopThread {
 public:
  using WatchCallback = Shared<CallbackNoCopy<int, int>>;  // descriptor, epoll event bits
  using ChildCallback = Shared<CallbackNoCopy<int, int>>;  // process id, wait status

  ThreadLinux();

  void PostTask(Task task) override;
  void PostScheduledTask(std::int64_t delayMs, Task task) override;

  // Watches `fd` for `events`, bits of epoll_ctl(2) that go to the kernel unchanged. Posts
  // `callback` with the bits that the kernel reports, each time it reports any, until
  // `RemoveWatch`. A callback that has been posted by then still runs.
  void AddWatch(int fd, std::uint32_t events, WatchCallback callback);

  // Changes the events of a watch; its callback stays. The kernel learns of new events at once, and
  // of fewer events before the loop waits the next time, unless the events are back by then. When
  // that fails, the loop only logs the ERROR line.
  void UpdateWatch(int fd, std::uint32_t events);

  // Ends a watch. Ignores a descriptor that has none.
  void RemoveWatch(int fd);

  // Posts `callback` once with the process id and the wait status when the child `pid` has exited:
  // at once when it has exited already, or is no child of this process (status 0).
  //
  // Deliberate: the loop looks for exits only when something else wakes it, at least once a second
  // while a task is scheduled. It reports a child that a signal ended one look late, with status 0.
  void MonitorChildProcess(pid_t pid, ChildCallback callback);

  // Queues `task` for the next round. The loop polls for what is ready before it, without waiting.
  void PostToNextRound(Task task);

  // The number of the current round: as long as it is the same, the loop has not polled.
  std::uint64_t GetRound() const { return _round; }

 private:
  struct Watch {
    WatchCallback callback;
    std::uint32_t events;
    std::uint32_t kernelEvents;  // as the kernel knows them: `events` and perhaps more
  };

  void Wake() override;
  void RunLoop() override;
  void RunRound();
  int GetTimeoutMs();
  void Wait();
  void ModifyWatch(int fd, std::uint32_t events);
  void NarrowWatches();
  void ProcessWatches(std::span<epoll_event const> events);
  void ProcessWatch(epoll_event const& event);
  void ProcessChildSignal();
  void CheckChildren();
  bool CheckProcessExit(pid_t pid, int& status);
  void DispatchChildCallback(pid_t pid, int status);
  void DiscardAll();

  std::deque<Task> _nextRoundTasks;
  std::map<int, Watch> _watches;
  std::vector<int> _narrowedFds;  // their watches may have fewer events than the kernel knows
  std::map<pid_t, ChildCallback> _children;
  UniqueFd _epoll;
  UniqueFd _wakeEvent;
  int _childSignalFd = -1;  // never set: the loop finds exits by polling
  std::uint64_t _round = 0;
};

}  // namespace Base
