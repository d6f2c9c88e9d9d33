#pragma once

#include <atomic>
#include <cstdint>
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

// What threads with a loop have in common, whatever the loop waits by: how they start and end, and
// their tasks.
class LoopThread : public Thread {
 public:
  void Start() final;
  void Stop() final;
  bool IsCurrentThread() const final;
  void Run() final;

 protected:
  // Logs as `log`, the derived thread's module.
  explicit LoopThread(Shared<Trace::Log> log);

  // Has the loop not wait, or wait no longer: it looks at its tasks, and whether it is to stop,
  // once more. On any thread; never lost.
  virtual void Wake() = 0;

  // The loop. Runs on its thread until `IsStopping`, then lets go of whatever it holds.
  virtual void RunLoop() = 0;

  bool IsStopping() const { return _stopping; }

  // Both on any thread; without a wake.
  void Enqueue(Task task) { _tasks.Push(std::move(task)); }
  void Schedule(std::int64_t delayMs, Task task);

  // When the first scheduled task becomes due, if there is one.
  std::optional<ScheduledTaskStore::TimePoint> GetEarliestWakeTime();

  // Runs the scheduled tasks that are due, then the posted ones until there are none left, those
  // that are posted meanwhile too. What they throw is logged.
  void RunTasks();

  // Returns whether there was any; what they held may have posted others.
  bool DiscardTasks();

 private:
  void RunHere();

  Shared<Trace::Log> const _log;
  ThreadHandle _thread;
  TaskQueue _tasks;
  ScheduledTaskStore _scheduledTasks;
  std::atomic<bool> _stopping{false};
  std::atomic<std::thread::id> _loopThreadId{};  // of no thread while the loop does not run
};

}  // namespace Base
