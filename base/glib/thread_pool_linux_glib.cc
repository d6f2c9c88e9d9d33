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

// GLib carries no tasks: an item of its pool only says that the queue has one more, and the worker
// that gets it takes the front one. So tasks start in posting order.
//
// What GLib holds, an item or a timer, owns a reference to the pool, and so finds it alive. A timer
// may be about to call back while another thread destroys it: it looks whether that has happened
// before it touches the pool, under a lock that belongs to none.
//
// `_activities` is what `Close` waits for.
//
// GLib's locks order all of this, but a race checker sees nothing of them: our own words that go
// the same way, `handover` before an item and `_activities` after it, let it see the order.

namespace Base {

namespace {

// Under it timers are made and destroyed, and look whether they still exist. No other lock is
// taken inside, but those of GLib.
std::mutex timersMutex;

// Written before an item is handed to GLib, read when it comes out: of all pools, as the reader
// must not touch the item's before that.
std::atomic<unsigned> handover{0};

// The pools of whose tasks the calling thread is inside: more than one where a task iterates the
// context on which another pool's timers are.
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
    // There is one all the same, with as many workers as could be started.
    if (_pool != nullptr) g_thread_pool_free(_pool, TRUE, FALSE);
    throw Exception("ThreadPool Failed");
  }
  if (_pool == nullptr) {
    TRACE_ERROR("Failed to create ThreadPool", context, maximumThreads, exclusive);
    throw Exception("ThreadPool Failed");
  }
}

ThreadPoolLinuxGlib::~ThreadPoolLinuxGlib() {
  // Nothing is left to be run: it would hold the pool.
  if (_pool != nullptr) ThreadPoolLinuxGlib::Close(true);
  TRACE_VERBOSE("ThreadPool destroyed", this);
}

void ThreadPoolLinuxGlib::PostTask(Task task) {
  if (!Push(task)) RejectPost();
}

void ThreadPoolLinuxGlib::PostScheduledTask(std::int64_t delayMs, Task task) {
  bool isClosed = false;
  std::optional<Wake> wake;
  {
    std::lock_guard const lock(_mutex);
    isClosed = _pool == nullptr;
    if (!isClosed) {
      _scheduledTasks.Insert(delayMs, std::move(task));
      wake = SetTimer();
    }
  }
  if (isClosed) RejectPost();
  LogWake(wake);
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
  // After the wait there are only those left for which no worker could be started.
  if (cancelTasks || wait) tasks = _tasks.TakeAll();
  TRACE_VERBOSE("ThreadPool closed.", this);
}

// Takes `task`, or returns false when the pool is closed.
bool ThreadPoolLinuxGlib::Push(Task& task) {
  GError* rawError = nullptr;
  {
    std::lock_guard const lock(_mutex);
    if (_pool == nullptr) return false;
    _tasks.Push(std::move(task));
    AddReference();
    ++_activities;
    ++handover;
    // A push that fails leaves the item in the pool as well.
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
  // Empty where the task has been let go of.
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

// With the lock. Sets the timer anew for the first scheduled task, as long as there is one.
std::optional<ThreadPoolLinuxGlib::Wake> ThreadPoolLinuxGlib::SetTimer() {
  _timer.reset();
  auto const wakeTime = _scheduledTasks.GetEarliestWakeTime();
  if (!wakeTime) return {};
  auto const delay = *wakeTime - std::chrono::system_clock::now();
  Wake wake{std::chrono::duration_cast<std::chrono::milliseconds>(delay).count(), 0};
  std::lock_guard const lock(timersMutex);
  GlibSource source =
      StartGlibTimer(_context.get(), delay, &ThreadPoolLinuxGlib::OnTimeout, this, wake.timerId);
  _timer.emplace(Timer{decltype(Timer::source)(source.release()), Shared(this)});
  return wake;
}

void ThreadPoolLinuxGlib::LogWake(std::optional<Wake> const& wake) {
  if (!wake) {
    TRACE_DEBUG("ThreadPool is not scheduled to wake");
    return;
  }
  auto const [wakeTimeMs, timerId] = *wake;
  if (wakeTimeMs <= 0) TRACE_WARNING("ThreadPool wake time has past", this, wakeTimeMs);
  TRACE_DEBUG("ThreadPool scheduled", this, wakeTimeMs, timerId);
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
  std::optional<Wake> wake;
  {
    std::lock_guard const lock(_mutex);
    if (_pool == nullptr) return;
    wake = SetTimer();
  }
  LogWake(wake);
}

void ThreadPoolLinuxGlib::RunScheduled(Task& task) {
  try {
    // Only an exclusive pool keeps the context's thread free of its tasks.
    if (_exclusive && Push(task)) return;
  } catch (Exception const&) {
    return;  // already logged; it stays queued
  }
  TRACE_DEBUG("ThreadPool executing scheduled task...", this);
  bool const succeeded = RunCaught(task, [this](std::exception const& err) {
    TRACE_ERROR("ThreadPool exception thrown processing scheduled task", this, err);
  });
  if (succeeded) TRACE_DEBUG("ThreadPool done executing scheduled task.", this);
}

void ThreadPoolLinuxGlib::FreePool(GThreadPool* pool, bool wait) {
  // Where no worker could be started there is none to take the items, and GLib would wait for ever.
  guint const dropped =
      g_thread_pool_get_num_threads(pool) == 0 ? g_thread_pool_unprocessed(pool) : 0;
  g_thread_pool_free(pool, dropped > 0 ? TRUE : FALSE, wait ? TRUE : FALSE);
  for (guint i = 0; i < dropped; ++i) {
    EndActivity();
    ReleaseReference();  // not the last: the caller has one
  }
}

void ThreadPoolLinuxGlib::EndActivity() {
  if (--_activities == 0) _activities.notify_all();
}

void ThreadPoolLinuxGlib::AwaitIdle() {
  for (int count = _activities; count != 0; count = _activities) _activities.wait(count);
}

}  // namespace Base
