#pragma once

#include <glib.h>

#include <chrono>
#include <memory>

// Owners of GLib's objects, and the timers of the task runners over GLib.

namespace Base {

struct GlibDeleter {
  void operator()(GMainContext* context) const { g_main_context_unref(context); }
  void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
  void operator()(GError* error) const { g_error_free(error); }

  // Takes the source off its context too, so that it does not fire again.
  void operator()(GSource* source) const {
    g_source_destroy(source);
    g_source_unref(source);
  }
};

using GlibContext = std::unique_ptr<GMainContext, GlibDeleter>;
using GlibLoop = std::unique_ptr<GMainLoop, GlibDeleter>;
using GlibError = std::unique_ptr<GError, GlibDeleter>;
using GlibSource = std::unique_ptr<GSource, GlibDeleter>;

// Attaches a timeout source to `context`, null being the default context, that calls `callback`
// with `data` when `delay` has passed. A negative delay counts as 0. Sets `timerId` to the source's
// id.
GlibSource StartGlibTimer(GMainContext* context, std::chrono::nanoseconds delay,
                          GSourceFunc callback, gpointer data, guint& timerId);

}  // namespace Base
