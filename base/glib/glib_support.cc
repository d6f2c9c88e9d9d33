#include "base/glib/glib_support.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace Base {

GlibSource StartGlibTimer(GMainContext* context, std::chrono::nanoseconds delay,
                          GSourceFunc callback, gpointer data, guint& timerId) {
  using std::chrono::microseconds;
  using std::chrono::milliseconds;
  auto const delayMs = std::chrono::duration_cast<milliseconds>(delay).count();
  GlibSource source(g_timeout_source_new(
      static_cast<guint>(std::clamp<std::int64_t>(delayMs, 0, std::numeric_limits<guint>::max()))));
  // More exact than the interval: a timer of whole milliseconds would fire up to one too early, and
  // timers without a delay would follow until the time has come.
  if (delay.count() > 0) {
    g_source_set_ready_time(
        source.get(), g_get_monotonic_time() + std::chrono::ceil<microseconds>(delay).count());
  }
  g_source_set_callback(source.get(), callback, data, nullptr);
  timerId = g_source_attach(source.get(), context);
  return source;
}

}  // namespace Base
