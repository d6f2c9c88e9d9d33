#pragma once

#include <glib.h>

#include <chrono>
#include <memory>

// GLib's objects with their owners, and the timers of the runners that use GLib.

namespace Base {

struct GlibDeleter {
  void operator()(GMainContext* context) const { g_main_context_unref(context); }
  void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
  void operator()(GError* error) const { g_error_free(error); }

  // Off its context too: a source that is let go of does not fire again.
  void operator()(GSource* source) const {
    g_source_destroy(source);
    g_source_unref(source);
  }
};

using GlibContext = std::unique_ptr<GMainContext, GlibDeleter>;
using GlibLoop = std::unique_ptr<GMainLoop, GlibDeleter>;
using GlibError = std::unique_ptr<GError, GlibDeleter>;
using GlibSource = std::unique_ptr<GSource, GlibDeleter>;

// Makes a timeout source that calls `callback` with `data` once `delay` has passed, and attaches it
// to `context`, null being the default one. A negative delay is none. `timerId` gets the source's
// id.
GlibSource StartGlibTimer(GMainContext* context, std::chrono::nanoseconds delay,
                          GSourceFunc callback, gpointer data, guint& timerId);

}  // namespace Base
