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

// Runs posted tasks on the workers of a GLib thread pool. A timeout source on a GLib main context
// says when scheduled tasks are due; another thread, such as a ThreadLinuxGlib, iterates that
// context.
//
// Deliberate: an exclusive pool runs its scheduled tasks on its workers, any other pool on the
// thread that iterates the context.
//
// Lifetime: on a context that no thread iterates, scheduled tasks hold the pool until `Close`.
class ThreadPoolLinuxGlib final : public ThreadPool {
 public:
  // Sets its timers on `context`; null is GLib's default context. Has up to `maximumThreads`
  // workers; -1 is no limit, and with 0 `Close` discards the posted tasks. An `exclusive` pool
  // starts workers of its own, all at once, and needs a limit. Throws Exception "ThreadPool
  // Failed".
  ThreadPoolLinuxGlib(GMainContext* context, int maximumThreads, bool exclusive);
  ~ThreadPoolLinuxGlib() override;

  // When PostTask throws "ThreadPool Failed", the task stays queued and runs if the pool gets a
  // worker later.
  void PostTask(Task task) override;
  void PostScheduledTask(std::int64_t delayMs, Task task) override;

  void Close(bool cancelTasks) override;

 private:
  // The timer that was set, for the log line, which is written without the lock.
  struct Wake {
    std::int64_t wakeTimeMs;
    guint timerId;
  };

  // Destroys a timer so that no callback of it begins any more.
  struct TimerDeleter {
    void operator()(GSource* source) const;
  };
  struct Timer {
    std::unique_ptr<GSource, TimerDeleter> source;
    Shared<ThreadPoolLinuxGlib> pool;  // keeps the pool alive for the callback
  };

  static void OnItem(gpointer item, gpointer pool);
  static gboolean OnTimeout(gpointer pool);

  bool Push(Task& task);
  [[noreturn]] void RejectPost();
  void RunPosted(Task const& task);
  void RunDue();
  void RunScheduled(Task& task);
  void ScheduleWake();
  std::optional<Wake> SetTimer(ScheduledTaskStore::TimePoint now);
  void FreePool(GThreadPool* pool, bool wait);
  void EndActivity();
  void AwaitIdle();

  bool const _exclusive;
  std::mutex _mutex;
  GlibContext _context;         // under _mutex; empty: the default one
  GThreadPool* _pool;           // under _mutex; null once closed
  std::optional<Timer> _timer;  // under _mutex; empty while nothing is scheduled
  TaskQueue _tasks;
  ScheduledTaskStore _scheduledTasks;
  std::atomic<int> _activities{0};  // items that GLib holds or runs, and timer callbacks that run
};

}  // namespace Base
