#include "base/glib/thread_linux_glib.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "trace/trace.h"

TRACE_MODULE("thread_linux_glib");

// A round: run tasks, set the timer for the first scheduled task, run the main loop until a wake or
// the timer quits it.
//
// The obvious wake, `g_main_loop_quit` on the poster's thread, gets lost: it ends only a main loop
// that runs already, and `g_main_loop_run` forgets an earlier quit. A post between the last look at
// the queue and the start of the main loop would wait for the next post, and a stop for ever. So a
// wake makes a source of the context ready. The source stays ready until the main loop finds it,
// however late that is, and its callback quits the main loop from inside.

namespace Base {

namespace {

constexpr std::chrono::milliseconds shortestWait(10);

// Dispatches the wake source, which only `g_source_set_ready_time` makes ready.
gboolean DispatchWake(GSource* source, GSourceFunc callback, gpointer data) {
  // Before the quit, so that a wake from here on makes the source ready again.
  g_source_set_ready_time(source, -1);
  return callback(data);
}

gboolean QuitLoop(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

GlibSource MakeWakeSource(GMainContext* context, GMainLoop* loop) {
  // Not const, because GLib asks for a pointer to non-const; it changes nothing.
  static GSourceFuncs functions{nullptr, nullptr, &DispatchWake, nullptr, nullptr, nullptr};
  GlibSource source(g_source_new(&functions, sizeof(GSource)));
  g_source_set_callback(source.get(), &QuitLoop, loop, nullptr);
  // GLib dispatches only the highest priority that is ready, so that other sources of the context
  // that are always ready cannot starve this one.
  g_source_set_priority(source.get(), G_PRIORITY_HIGH);
  g_source_attach(source.get(), context);
  return source;
}

}  // namespace

ThreadLinuxGlib::ThreadLinuxGlib()
    : LoopThread(traceModule),
      _context(g_main_context_new()),
      _loop(g_main_loop_new(_context.get(), FALSE)),
      _wakeSource(MakeWakeSource(_context.get(), _loop.get())) {}

void ThreadLinuxGlib::PostTask(Task task) {
  Enqueue(std::move(task));
  TRACE_DEBUG("A task was posted", this);
  Wake();
}

void ThreadLinuxGlib::PostScheduledTask(std::int64_t delayMs, Task task) {
  Schedule(delayMs, std::move(task));
  TRACE_DEBUG("A scheduled task was posted", this, Trace::As("timeout", delayMs));
  Wake();
}

void ThreadLinuxGlib::Wake() { g_source_set_ready_time(_wakeSource.get(), 0); }

void ThreadLinuxGlib::RunLoop() {
  g_main_context_push_thread_default(_context.get());
  while (!IsStopping()) {
    TRACE_DEBUG("Processing tasks", this);
    RunTasks();
    if (IsStopping()) break;
    ScheduleWake();
    TRACE_DEBUG("Running main loop", this);
    g_main_loop_run(_loop.get());
  }
  _timer.reset();
  while (DiscardTasks()) {
  }
  g_main_context_pop_thread_default(_context.get());
}

void ThreadLinuxGlib::ScheduleWake() {
  _timer.reset();
  auto const wakeTime = GetEarliestWakeTime();
  if (!wakeTime) return;
  auto const delay = std::max<std::chrono::nanoseconds>(
      *wakeTime - std::chrono::system_clock::now(), shortestWait);
  guint timerId = 0;
  _timer = StartGlibTimer(_context.get(), delay, &ThreadLinuxGlib::OnWake, this, timerId);
  auto const wakeTimeMs = std::chrono::duration_cast<std::chrono::milliseconds>(delay).count();
  TRACE_DEBUG("Thread scheduled", this, timerId, wakeTimeMs);
}

gboolean ThreadLinuxGlib::OnWake(gpointer thread) {
  Shared const self(static_cast<ThreadLinuxGlib*>(thread));
  g_main_loop_quit(self->_loop.get());
  return G_SOURCE_REMOVE;
}

}  // namespace Base
