#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

#include "trace/time_text.h"

// The header of a trace line. A template, because the crash handler appends it to a `FixedText`,
// which does not allocate.

namespace Trace {

namespace Internal {

// Whether the calling thread has written a line. Its model is initial-exec because the default one
// may allocate on first use, which a signal handler must not.
[[gnu::tls_model("initial-exec")]] inline constinit thread_local bool hasWrittenLine = false;

}  // namespace Internal

struct LineHeader {
  std::chrono::system_clock::time_point time;
  std::string_view level;
  std::string_view module;
  int pid = 0;
  int threadId = 0;
};

// Appends "09:05:33.420Z VERBOSE  socket_linux(4211:4213) - " for the calling thread's next line.
template <typename Text>
void AppendLineHeader(Text& out, LineHeader const& header) {
  constexpr std::size_t levelWidth = 8;
  AppendTimeOfDay(out, header.time);
  out.append(".");
  unsigned const milliseconds = GetMilliseconds(header.time);
  if (Internal::hasWrittenLine) {
    // Deliberate: from a thread's second line on, 42 ms reads "420"; see trace/trace.h.
    AppendPadded(out, milliseconds, 1);
    out.append(milliseconds < 10 ? 2 : milliseconds < 100 ? 1 : 0, '0');
  } else {
    AppendPadded(out, milliseconds, 3);
    Internal::hasWrittenLine = true;
  }
  out.append("Z ");
  out.append(header.level);
  out.append(levelWidth - header.level.size() + 1, ' ');
  out.append(header.module);
  out.append("(");
  AppendPadded(out, static_cast<unsigned>(header.pid), 1);
  out.append(":");
  AppendPadded(out, static_cast<unsigned>(header.threadId), 1);
  out.append(") - ");
}

}  // namespace Trace
