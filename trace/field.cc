#include "trace/field.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <cwchar>

#include "base/string_conversion.h"
#include "trace/time_text.h"
#include "utilities/arguments/arguments.h"

namespace Trace {

namespace {

template <typename... Arguments>
void AppendNumber(std::string& out, Arguments... arguments) {
  std::array<char, 64> digits;  // room for 64 bits and for a double of six significant digits
  auto const result = std::to_chars(digits.data(), digits.data() + digits.size(), arguments...);
  out.append(digits.data(), result.ptr);
}

template <typename Duration>
void AppendDuration(std::string& out, Duration duration, std::string_view suffix) {
  out.append("\"");
  AppendNumber(out, static_cast<long long>(duration.count()));
  out.append(suffix).append("\"");
}

template <typename Character, typename GetLength>
void RenderPointerText(std::string& out, Character const* text, GetLength getLength) {
  static std::uint32_t const maxLength = GetUnsignedArgument("trace-stringptr-maxlen", 64);
  if (text == nullptr) {
    out.append("null");
    return;
  }
  RenderTraceValue(out, std::basic_string_view<Character>(text, getLength(text, maxLength)));
}

}  // namespace

void RenderTraceValue(std::string& out, void const* address) {
  if (address == nullptr) {
    out.append("0");
    return;
  }
  std::array<char, 2 + 2 * sizeof address> text{'0', 'x'};
  auto const result = std::to_chars(text.data() + 2, text.data() + text.size(),
                                    reinterpret_cast<std::uintptr_t>(address), 16);
  out.append(text.data(), result.ptr);
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

void RenderTraceValue(std::string& out, std::wstring_view text) {
  RenderTraceValue(out, std::string_view(Base::ToUtf8(text)));
}

void RenderTraceValue(std::string& out, char const* text) {
  RenderPointerText(out, text, &strnlen);
}

void RenderTraceValue(std::string& out, wchar_t const* text) {
  RenderPointerText(out, text, &wcsnlen);
}

void RenderTraceValue(std::string& out, std::exception const& err) {
  RenderTraceValue(out, std::string_view(err.what()));
}

void RenderTraceValue(std::string& out, std::chrono::sys_time<std::chrono::nanoseconds> time) {
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
