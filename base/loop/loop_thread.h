#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <optional>
#include <thread>
#include <utility>

#include "base/callback.h"
#include "base/loop/task_store.h"
#include "base/loop/thread.h"
#include "base/loop/thread_handle.h"
#include "base/shared.h"
#include "trace/trace.h"

namespace Base {

// What all threads with a loop share: start, end, and the queues of their tasks. A derived class
// adds the loop itself: by what it waits, and how a wake ends the wait.
class LoopThread : public Thread {
 public:
  void Start() final;
  void Stop() final;
  bool IsCurrentThread() const final;
  void Run() final;
  bool HasEnded() const final { return _hasEnded; }

 protected:
  // Writes its trace lines to `log`, the trace module of the derived class.
  explicit LoopThread(Shared<Trace::Log> log);

  // Ends the loop's wait, or its next wait when it does not wait now, so that the loop looks at its
  // tasks and at `IsStopping` again. Called on any thread. A wake is never lost.
  virtual void Wake() = 0;

  // The loop: runs on its thread until `IsStopping`, then discards whatever it holds.
  virtual void RunLoop() = 0;

  bool IsStopping() const { return _stopping; }

  // Queue a task on any thread and do not wake the loop.
  void Enqueue(Task task);
  void Schedule(std::int64_t delayMs, Task task);

  // Returns when the first scheduled task becomes due; empty when nothing is scheduled.
  std::optional<ScheduledTaskStore::TimePoint> GetEarliestWakeTime();

  // Runs the scheduled tasks that are due, then the posted tasks until there are none left, those
  // that are posted meanwhile included. Logs what they throw.
  void RunTasks();

  // Discards all tasks; from the first call on, the loop has ended. Returns whether there were any:
  // their destructors may have posted new ones.
  bool DiscardTasks();

 private:
  void RunHere();
  Task TakeTask() noexcept;

  Shared<Trace::Log> const _log;
  ThreadHandle _thread;
  TaskQueue _posted;        // by other threads
  std::deque<Task> _tasks;  // of the loop's thread: its own, and those taken from `_posted`
  ScheduledTaskStore _scheduledTasks;
  std::atomic<bool> _stopping{false};
  std::atomic<bool> _hasEnded{false};
  std::atomic<std::thread::id> _loopThreadId{};  // no thread's while the loop does not run
};

}  // namespace Base
