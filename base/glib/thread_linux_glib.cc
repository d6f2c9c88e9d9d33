#include "base/glib/thread_linux_glib.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "trace/trace.h"

TRACE_MODULE("thread_linux_glib");

// How a post reaches the loop. `g_main_loop_quit` ends a main loop that runs; one that has not
// begun to run forgets it, and a post between the loop's last look at its queue and the begin of
// its main loop would wait for the next one, a stop there for ever. So it is not the poster that
// quits. It makes a source of the context ready, which stays ready until the main loop finds it,
// however late that is, and which quits from inside.

namespace Base {

namespace {

constexpr std::chrono::milliseconds shortestWait(10);

// The wake source: never ready by itself, only by `g_source_set_ready_time`.
gboolean DispatchWake(GSource* source, GSourceFunc callback, gpointer data) {
  // Before the quit: what makes it ready again from here on is a wake of its own.
  g_source_set_ready_time(source, -1);
  return callback(data);
}

gboolean QuitLoop(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

GlibSource MakeWakeSource(GMainContext* context, GMainLoop* loop) {
  // GLib takes them without const, and changes nothing.
  static GSourceFuncs functions{nullptr, nullptr, &DispatchWake, nullptr, nullptr, nullptr};
  GlibSource source(g_source_new(&functions, sizeof(GSource)));
  g_source_set_callback(source.get(), &QuitLoop, loop, nullptr);
  // Sources of others that are always ready must not keep it from its turn.
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
