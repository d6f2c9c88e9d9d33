#include "base/glib/thread_pool_linux_glib.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <string_view>
#include <utility>
#include <vector>

#include "base/exception.h"
#include "base/loop/run_caught.h"
#include "trace/crash/crash_stack.h"
#include "trace/trace.h"

TRACE_MODULE("thread_pool_linux_glib");

// GLib's pool carries no tasks. An item that is pushed to it is the pool itself and says that the
// queue has one more task; the worker that gets the item takes the task at the front. So tasks
// start in posting order, whichever worker runs them, and a task is discarded by taking it out of
// the queue: its item then finds no task and does nothing.
//
// Scheduled tasks lie in a store of their own. There is at most one timer, for the earliest of
// them; each task that is scheduled, and each timer that has fired, sets it anew. When it fires, an
// exclusive pool pushes the tasks that are due to its workers; any other pool runs them right
// there.
//
// Each item and the timer hold a reference to the pool, so GLib never calls back into a deleted
// pool. A timer has a second danger: GLib may be about to call it back while another thread
// destroys it and releases its reference. So the callback first asks, under `timersMutex`, whether
// its source is destroyed, and only then touches the pool; timers are destroyed under the same
// lock. The lock is not the pool's, because the pool may be gone by then.
//
// `Close` takes the GLib pool, the timer and the scheduled tasks away under `_mutex`, under which
// posts look whether the pool is open: a post is either before `Close`, and its task runs, or it
// throws. `Close` then waits until `_activities` is 0. GLib's own wait, that of
// g_thread_pool_free(), is not enough: it leaves out timer callbacks, and a second `Close` has no
// GLib pool left to wait for. A task of the pool cannot wait for itself, so `TaskScope` knows which
// pools' tasks the calling thread is running.
//
// GLib's locks order all of this, but ThreadSanitizer does not see them, as GLib is not
// instrumented. Two atomics of our own run the same way and show it the order: `handover` from a
// push to its worker, `_activities` from a worker to `Close`.

namespace Base {

namespace {

// Held while a timer is created or destroyed, and while its callback asks whether it is destroyed.
// Only locks of GLib are taken under it.
std::mutex timersMutex;

// Written before an item is pushed, read when a worker gets it. One for all pools: the worker must
// not touch its pool before it has read this.
std::atomic<unsigned> handover{0};

std::int64_t ToMilliseconds(std::chrono::nanoseconds delay) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(delay).count();
}

// The pools whose tasks the calling thread is running. There is more than one when a task iterates
// the context of another pool's timers.
class TaskScope {
 public:
  explicit TaskScope(ThreadPool const* pool) : _pool(pool), _outer(_innermost) {
    _innermost = this;
  }
  TaskScope(TaskScope const&) = delete;
  TaskScope& operator=(TaskScope const&) = delete;
  ~TaskScope() { _innermost = _outer; }

  static bool IsInside(ThreadPool const* pool) {
    TaskScope const* scope = _innermost;
    while (scope != nullptr && scope->_pool != pool) scope = scope->_outer;
    return scope != nullptr;
  }

 private:
  static inline thread_local TaskScope const* _innermost = nullptr;

  ThreadPool const* const _pool;
  TaskScope const* const _outer;
};

}  // namespace

ThreadPoolLinuxGlib::ThreadPoolLinuxGlib(GMainContext* context, int maximumThreads, bool exclusive)
    : _exclusive(exclusive) {
  TRACE_VERBOSE("ThreadPool created", this, context, maximumThreads, exclusive);
  if (context != nullptr) _context.reset(g_main_context_ref(context));
  GError* rawError = nullptr;
  _pool = g_thread_pool_new(&ThreadPoolLinuxGlib::OnItem, this, maximumThreads,
                            exclusive ? TRUE : FALSE, &rawError);
  if (GlibError const error{rawError}) {
    TRACE_ERROR("Failed to create ThreadPool",
                Trace::As("message", std::string_view(error->message)),
                Trace::As("code", error->code));
    // GLib may return a pool all the same, with as many workers as it could start.
    if (_pool != nullptr) g_thread_pool_free(_pool, TRUE, FALSE);
    throw Exception("ThreadPool Failed");
  }
  if (_pool == nullptr) {
    TRACE_ERROR("Failed to create ThreadPool", context, maximumThreads, exclusive);
    throw Exception("ThreadPool Failed");
  }
}

ThreadPoolLinuxGlib::~ThreadPoolLinuxGlib() {
  // Nothing is left to run, as items and timers hold the pool.
  if (_pool != nullptr) ThreadPoolLinuxGlib::Close(true);
  TRACE_VERBOSE("ThreadPool destroyed", this);
}

void ThreadPoolLinuxGlib::PostTask(Task task) {
  if (!Push(task)) RejectPost();
}

void ThreadPoolLinuxGlib::PostScheduledTask(std::int64_t delayMs, Task task) {
  bool isClosed = false;
  {
    std::lock_guard const lock(_mutex);
    isClosed = _pool == nullptr;
    if (!isClosed) _scheduledTasks.Insert(delayMs, std::move(task));
  }
  if (isClosed) RejectPost();
  ScheduleWake();
}

void ThreadPoolLinuxGlib::Close(bool cancelTasks) {
  TRACE_VERBOSE("ThreadPool closing...", this, cancelTasks);
  bool const wait = !TaskScope::IsInside(this);
  GThreadPool* pool = nullptr;
  GlibContext context;
  std::optional<Timer> timer;
  std::vector<ScheduledTaskStore::Entry> scheduledTasks;
  {
    std::lock_guard const lock(_mutex);
    pool = std::exchange(_pool, nullptr);
    context = std::move(_context);
    timer = std::exchange(_timer, std::nullopt);
    if (timer) timer->source.reset();
    scheduledTasks = _scheduledTasks.TakeAll();
  }
  if (timer) TRACE_VERBOSE("ThreadPool closing timer...", this);
  if (pool != nullptr) {
    TRACE_VERBOSE("ThreadPool closing thread pool...", this);
    FreePool(pool, wait);
    TRACE_VERBOSE("ThreadPool closed thread pool...", this);
  }
  context.reset();
  if (wait) AwaitIdle();
  std::deque<Task> tasks;
  // After the wait, only tasks are left for which no worker could be started.
  if (cancelTasks || wait) tasks = _tasks.TakeAll();
  TRACE_VERBOSE("ThreadPool closed.", this);
}

// Queues `task` and pushes an item for it. Returns false, and leaves `task`, when the pool is
// closed.
bool ThreadPoolLinuxGlib::Push(Task& task) {
  GError* rawError = nullptr;
  {
    std::lock_guard const lock(_mutex);
    if (_pool == nullptr) return false;
    _tasks.Push(std::move(task));
    AddReference();
    ++_activities;
    ++handover;
    // When this fails, the item is in GLib's queue nevertheless.
    g_thread_pool_push(_pool, this, &rawError);
  }
  if (GlibError const error{rawError}) {
    TRACE_ERROR("Failed to add threadpool task",
                Trace::As("message", std::string_view(error->message)),
                Trace::As("code", error->code));
    throw Exception("ThreadPool Failed");
  }
  return true;
}

void ThreadPoolLinuxGlib::RejectPost() {
  TRACE_ERROR("Attempt to post a task to a closed threadpool", this);
  throw Exception("ThreadPool Closed");
}

void ThreadPoolLinuxGlib::OnItem(gpointer item, gpointer /*pool*/) {
  static_cast<void>(handover.load());
  Trace::EnsureCrashStack();  // the workers are GLib's
  auto* const self = static_cast<ThreadPoolLinuxGlib*>(item);
  TaskScope const scope(self);
  // Empty when the task has been discarded.
  if (Task const task = self->_tasks.Pop()) self->RunPosted(task);
  self->EndActivity();
  if (self->ReleaseReference() == 0) delete self;
}

void ThreadPoolLinuxGlib::RunPosted(Task const& task) {
  TRACE_DEBUG("ThreadPool executing task...", this);
  bool const succeeded = RunCaught(task, [this](std::exception const& err) {
    TRACE_ERROR("ThreadPool task execution failed", this, err);
  });
  if (succeeded) TRACE_DEBUG("ThreadPool done executing task.", this);
}

void ThreadPoolLinuxGlib::ScheduleWake() {
  auto const now = std::chrono::system_clock::now();
  if (auto const wakeTime = _scheduledTasks.GetEarliestWakeTime()) {
    auto const wakeTimeMs = ToMilliseconds(*wakeTime - now);
    // Before the timer is set: from then on the thread of the context may run the task.
    if (wakeTimeMs <= 0) TRACE_WARNING("ThreadPool wake time has past", this, wakeTimeMs);
  }
  std::optional<Wake> wake;
  {
    std::lock_guard const lock(_mutex);
    if (_pool == nullptr) return;
    wake = SetTimer(now);
  }
  if (!wake) {
    TRACE_DEBUG("ThreadPool is not scheduled to wake");
    return;
  }
  auto const [wakeTimeMs, timerId] = *wake;
  TRACE_DEBUG("ThreadPool scheduled", this, wakeTimeMs, timerId);
}

// Under `_mutex`. Replaces the timer by one for the first scheduled task, if there is any.
std::optional<ThreadPoolLinuxGlib::Wake> ThreadPoolLinuxGlib::SetTimer(
    ScheduledTaskStore::TimePoint now) {
  _timer.reset();
  auto const wakeTime = _scheduledTasks.GetEarliestWakeTime();
  if (!wakeTime) return {};
  auto const delay = *wakeTime - now;
  Wake wake{ToMilliseconds(delay), 0};
  std::lock_guard const lock(timersMutex);
  GlibSource source =
      StartGlibTimer(_context.get(), delay, &ThreadPoolLinuxGlib::OnTimeout, this, wake.timerId);
  _timer.emplace(Timer{decltype(Timer::source)(source.release()), Shared(this)});
  return wake;
}

void ThreadPoolLinuxGlib::TimerDeleter::operator()(GSource* source) const {
  std::lock_guard const lock(timersMutex);
  GlibDeleter()(source);
}

gboolean ThreadPoolLinuxGlib::OnTimeout(gpointer pool) {
  TaskScope const scope(static_cast<ThreadPoolLinuxGlib*>(pool));
  GSource* const timer = g_main_current_source();
  Shared<ThreadPoolLinuxGlib> self;
  {
    std::lock_guard const lock(timersMutex);
    if (g_source_is_destroyed(timer) != FALSE) return G_SOURCE_REMOVE;
    self = Shared(static_cast<ThreadPoolLinuxGlib*>(pool));
    ++self->_activities;
  }
  self->RunDue();
  self->EndActivity();
  return G_SOURCE_REMOVE;
}

void ThreadPoolLinuxGlib::RunDue() {
  TRACE_DEBUG("ThreadPool timed out", this);
  while (Task task = _scheduledTasks.TakeDue(std::chrono::system_clock::now())) {
    RunScheduled(task);
  }
  ScheduleWake();
}

void ThreadPoolLinuxGlib::RunScheduled(Task& task) {
  try {
    // A closed pool takes no push: the task was due before `Close` and runs here.
    if (_exclusive && Push(task)) return;
  } catch (Exception const&) {
    return;  // already logged; the task stays queued
  }
  TRACE_DEBUG("ThreadPool executing scheduled task...", this);
  bool const succeeded = RunCaught(task, [this](std::exception const& err) {
    TRACE_ERROR("ThreadPool exception thrown processing scheduled task", this, err);
  });
  if (succeeded) TRACE_DEBUG("ThreadPool done executing scheduled task.", this);
}

void ThreadPoolLinuxGlib::FreePool(GThreadPool* pool, bool wait) {
  // Without a worker nobody takes the items, and GLib would wait for ever.
  guint const dropped =
      g_thread_pool_get_num_threads(pool) == 0 ? g_thread_pool_unprocessed(pool) : 0;
  g_thread_pool_free(pool, dropped > 0 ? TRUE : FALSE, wait ? TRUE : FALSE);
  for (guint i = 0; i < dropped; ++i) {
    EndActivity();
    ReleaseReference();  // not the last: the caller holds the pool
  }
}

void ThreadPoolLinuxGlib::EndActivity() {
  if (--_activities == 0) _activities.notify_all();
}

void ThreadPoolLinuxGlib::AwaitIdle() {
  for (int count = _activities; count != 0; count = _activities) _activities.wait(count);
}

}  // namespace Base
