#pragma once

#include <glib.h>

#include <cstdint>

#include "base/callback.h"
#include "base/glib/glib_support.h"
#include "base/loop/loop_thread.h"

namespace Base {

// A loop over a GLib main context of its own. Any code may attach sources to the context; they fire
// on the loop's thread, whose thread-default context it is. Each round
//
//   1. runs the tasks (see Thread);
//   2. runs a GLib main loop on the context until a post, a stop or a scheduled task ends it.
//
// Deliberate: no timer of this thread is shorter than 10 ms, so a task that is scheduled 3 ms ahead
// waits for 10 ms, unless something else begins a round sooner.
//
// When the loop ends, the sources of others stay attached.
//
// Threads: as Thread; `GetContext` on any thread.
// Errors:  the callback of a source must not throw.
class ThreadLinuxGlib final : public LoopThread {
 public:
  ThreadLinuxGlib();

  void PostTask(Task task) override;
  void PostScheduledTask(std::int64_t delayMs, Task task) override;

  // The context to which sources are attached, never null. It lives as long as this object; a
  // caller that needs it longer takes a reference to it.
  GMainContext* GetContext() const { return _context.get(); }

 private:
  static gboolean OnWake(gpointer thread);

  void Wake() override;
  void RunLoop() override;
  void ScheduleWake();

  GlibContext const _context;
  GlibLoop const _loop;
  GlibSource const _wakeSource;
  GlibSource _timer;  // of the loop's thread; empty while nothing is scheduled
};

}  // namespace Base
