#include "trace/field.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "trace/time_text.h"
#include "utilities/arguments.h"

namespace Trace {

namespace {

template <typename... Arguments>
void AppendNumber(std::string& out, Arguments... arguments) {
  std::array<char, 64> digits;  // the longest is a double of six significant digits
  auto const result = std::to_chars(digits.data(), digits.data() + digits.size(), arguments...);
  out.append(digits.data(), result.ptr);
}

template <typename Duration>
void AppendDuration(std::string& out, Duration duration, std::string_view suffix) {
  out.append("\"");
  AppendNumber(out, static_cast<long long>(duration.count()));
  out.append(suffix).append("\"");
}

}  // namespace

void RenderTraceValue(std::string& out, void const* address) {
  if (address == nullptr) {
    out.append("0");
    return;
  }
  out.append("0x");
  AppendNumber(out, reinterpret_cast<std::uintptr_t>(address), 16);
}

void RenderTraceValue(std::string& out, bool value) { out.append(value ? "true" : "false"); }

void RenderTraceValue(std::string& out, char value) { out.push_back(value); }

void RenderTraceValue(std::string& out, long long value) { AppendNumber(out, value); }

void RenderTraceValue(std::string& out, unsigned long long value) { AppendNumber(out, value); }

void RenderTraceValue(std::string& out, double value) {
  AppendNumber(out, value, std::chars_format::general, 6);
}

void RenderTraceValue(std::string& out, std::string_view text) {
  out.append("\"").append(text).append("\"");
}

void RenderTraceValue(std::string& out, char const* text) {
  static std::uint32_t const maxLength = GetUnsignedArgument("trace-stringptr-maxlen", 64);
  if (text == nullptr) {
    out.append("null");
    return;
  }
  RenderTraceValue(out, std::string_view(text, strnlen(text, maxLength)));
}

void RenderTraceValue(std::string& out, std::exception const& err) {
  RenderTraceValue(out, std::string_view(err.what()));
}

void RenderTraceValue(std::string& out, std::chrono::system_clock::time_point time) {
  out.append("\"");
  AppendTimePoint(out, time);
  out.append("\"");
}

void RenderTraceValue(std::string& out, std::chrono::milliseconds duration) {
  AppendDuration(out, duration, "ms");
}

void RenderTraceValue(std::string& out, std::chrono::seconds duration) {
  AppendDuration(out, duration, "s");
}

void RenderTraceValue(std::string& out, std::chrono::minutes duration) {
  AppendDuration(out, duration, "m");
}

void RenderTraceValue(std::string& out, std::chrono::hours duration) {
  AppendDuration(out, duration, "h");
}

}  // namespace Trace
