#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

#include "trace/fixed_text.h"
#include "trace/time_text.h"

// The header of a trace line. A template, because the crash handler appends it to a `FixedText`,
// which does not allocate.

namespace Trace {

namespace Internal {

// Whether the calling thread has written a line. Its model is initial-exec because the default one
// may allocate on first use, which a signal handler must not.
[[gnu::tls_model("initial-exec")]] inline constinit thread_local bool hasWrittenLine = false;

}  // namespace Internal

// "(4211:4213) - ", the same in all lines of a thread. The kernel's numbers have up to 7 digits.
using IdText = FixedText<24>;

inline IdText MakeIdText(int pid, int threadId) noexcept {
  IdText text;
  text.append("(");
  text.AppendNumber(pid);
  text.append(":");
  text.AppendNumber(threadId);
  text.append(") - ");
  return text;
}

struct LineHeader {
  std::chrono::system_clock::time_point time;
  std::string_view level;
  std::string_view module;
  std::string_view ids;  // an `IdText`
};

// Appends "09:05:33.420Z VERBOSE  socket_linux(4211:4213) - " for the calling thread's next line.
template <typename Text>
void AppendLineHeader(Text& out, LineHeader const& header) {
  constexpr std::size_t levelWidth = 8;
  FixedText<32> start;  // to append it at once: appending to a std::string costs more
  AppendTimeOfDay(start, header.time);
  start.append(".");
  unsigned const milliseconds = GetMilliseconds(header.time);
  if (Internal::hasWrittenLine) {
    // Deliberate: from a thread's second line on, 42 ms reads "420"; see trace/trace.h.
    AppendPadded(start, milliseconds, 1);
    start.append(milliseconds < 10 ? 2 : milliseconds < 100 ? 1 : 0, '0');
  } else {
    AppendPadded(start, milliseconds, 3);
    Internal::hasWrittenLine = true;
  }
  start.append("Z ");
  start.append(header.level);
  start.append(levelWidth - header.level.size() + 1, ' ');
  out.append(start.GetText());
  out.append(header.module);
  out.append(header.ids);
}

}  // namespace Trace
