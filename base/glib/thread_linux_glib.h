#pragma once

#include <glib.h>

#include <cstdint>

#include "base/callback.h"
#include "base/glib/glib_support.h"
#include "base/loop/loop_thread.h"

namespace Base {

// A loop over a GLib main context of its own: sources that others attach to the context fire on the
// loop's thread, whose thread-default context it is. Each round
//
//   1. runs the scheduled tasks that are due, then the posted ones until there are none left, those
//      that are posted meanwhile too;
//   2. runs a GLib main loop on the context until there is a post, a stop or a scheduled task to
//      run. The timer for a scheduled task is never shorter than 10 ms; a round that something else
//      causes sooner runs what is due by then.
//
// When the loop ends it lets go of its tasks without running them. What is posted after that is
// kept for the next run. Sources of others stay attached.
//
// Threads: PostTask, PostScheduledTask, Stop, IsCurrentThread and GetContext may be called from any
//          thread.
// Errors:  what a task throws is logged. Nothing may be thrown from the callback of a source.
class ThreadLinuxGlib final : public LoopThread {
 public:
  ThreadLinuxGlib();

  void PostTask(Task task) override;
  void PostScheduledTask(std::int64_t delayMs, Task task) override;

  // The context to attach sources to, never null. It lives as long as this object; who needs it for
  // longer takes a reference of its own.
  GMainContext* GetContext() const { return _context.get(); }

 private:
  static gboolean OnWake(gpointer thread);

  void Wake() override;
  void RunLoop() override;
  void ScheduleWake();

  GlibContext const _context;
  GlibLoop const _loop;
  GlibSource const _wakeSource;
  GlibSource _timer;  // the loop's thread's; empty while nothing is scheduled
};

}  // namespace Base
