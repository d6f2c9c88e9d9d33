#pragma once

#include <glib.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>

#include "base/callback.h"
#include "base/glib/glib_support.h"
#include "base/loop/task_store.h"
#include "base/loop/thread_pool.h"
#include "base/shared.h"

namespace Base {

// Runs posted tasks on the workers of a GLib thread pool. Scheduled tasks become due by a timeout
// source on a GLib main context that somebody else iterates, such as a ThreadLinuxGlib: an
// exclusive pool then runs them on a worker, any other on the thread that iterates the context.
//
// Threads:  any.
// Lifetime: tasks that are posted or scheduled hold the pool: its last user may let go of it while
//           they are still to come. Those that are scheduled on a context that is not iterated hold
//           it for ever, unless it is closed.
// Errors:   what a task throws is logged.
class ThreadPoolLinuxGlib final : public ThreadPool {
 public:
  // Sets its timers on `context`, on the default one when that is null. Has up to `maximumThreads`
  // workers, -1 being without limit; with 0 posted tasks wait for `Close`. An `exclusive` pool has
  // workers of its own, all of them from the start, and needs a limit. Throws Exception "ThreadPool
  // Failed".
  ThreadPoolLinuxGlib(GMainContext* context, int maximumThreads, bool exclusive);
  ~ThreadPoolLinuxGlib() override;

  // Throw Exception "ThreadPool Closed" after `Close`, which loses no task that was posted before,
  // but those that its `cancelTasks` takes away. PostTask throws "ThreadPool Failed" when there can
  // be no thread; the task stays queued then, and runs if the pool gets a worker later.
  void PostTask(Task task) override;
  void PostScheduledTask(std::int64_t delayMs, Task task) override;

  void Close(bool cancelTasks) override;

 private:
  // What was done about the timer, to be logged when no lock is held.
  struct Wake {
    std::int64_t wakeTimeMs;
    guint timerId;
  };

  // Takes the source off its context such that no callback of it begins any more.
  struct TimerDeleter {
    void operator()(GSource* source) const;
  };
  struct Timer {
    std::unique_ptr<GSource, TimerDeleter> source;
    Shared<ThreadPoolLinuxGlib> pool;  // held for the callback
  };

  static void OnItem(gpointer item, gpointer pool);
  static gboolean OnTimeout(gpointer pool);

  bool Push(Task& task);
  [[noreturn]] void RejectPost();
  void RunPosted(Task const& task);
  void RunDue();
  void RunScheduled(Task& task);
  std::optional<Wake> SetTimer();
  void LogWake(std::optional<Wake> const& wake);
  void FreePool(GThreadPool* pool, bool wait);
  void EndActivity();
  void AwaitIdle();

  bool const _exclusive;
  std::mutex _mutex;            // guards what `Close` takes away:
  GlibContext _context;         // empty: the default one
  GThreadPool* _pool;           // null once closed
  std::optional<Timer> _timer;  // empty while nothing is scheduled
  TaskQueue _tasks;
  ScheduledTaskStore _scheduledTasks;
  std::atomic<int> _activities{0};  // items that GLib holds or runs, and callbacks of timers
};

}  // namespace Base
