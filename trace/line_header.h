#pragma once

#include <algorithm>
#include <array>
#include <charconv>
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
  constexpr std::string_view form = "hh:mm:ss.000Z          ";
  constexpr std::size_t millisecondsAt = form.find("000");
  constexpr std::size_t levelAt = form.find(' ') + 1;  // its width is 8
  std::array<char, form.size()> start;  // appended at once: a std::string is slow at small pieces
  form.copy(start.data(), start.size());
  std::ranges::copy(GetTimeOfDay(header.time), start.begin());
  std::array<char, 3> digits;
  unsigned const milliseconds = GetMilliseconds(header.time);
  auto const end = std::to_chars(digits.begin(), digits.end(), milliseconds).ptr;
  // Deliberate: only a thread's first line has the digits on the right; see trace/trace.h.
  auto const offset = Internal::hasWrittenLine ? 0 : digits.end() - end;
  Internal::hasWrittenLine = true;
  std::copy(digits.begin(), end, start.begin() + millisecondsAt + offset);
  header.level.copy(start.data() + levelAt, start.size() - levelAt);
  out.append(start.data(), start.size());
  out.append(header.module);
  out.append(header.ids);
}

}  // namespace Trace
