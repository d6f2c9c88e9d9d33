#pragma once

#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

// Times as text, in UTC, by the calendar of <chrono>: gmtime_r(3) takes a lock of the C library,
// which another thread may have held when this process was forked.

namespace Trace {

// From 1677 to 2262. Not each library's own clock counts in nanoseconds.
using TimePoint = std::chrono::sys_time<std::chrono::nanoseconds>;

// "2026-05-03T17:30:41.042Z"
void AppendTimePoint(std::string& out, TimePoint time);

// The point in time of a text as above. The fraction may have one to nine digits; it may be absent,
// together with its point. Throws Base::Exception "Failed to parse time" for any other text, for a
// day or time that does not exist (second 60 is one), and for a time beyond the range of
// `TimePoint`.
TimePoint ParseTimePoint(std::string_view text);

// "20260503_173041", for file names
void AppendFileTime(std::string& out, TimePoint time);

// The milliseconds of the second, 0 to 999.
unsigned GetMilliseconds(TimePoint time);

// `value` in decimal, padded with zeros on the left to `width` digits.
template <typename Text>
void AppendPadded(Text& out, unsigned value, unsigned width) {
  std::array<char, 10> digits;
  char const* const end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  auto const length = static_cast<std::size_t>(end - digits.data());
  if (length < width) out.append(width - length, '0');
  out.append(digits.data(), length);
}

// Sets two digits at the front of `text`, those of a `value` below 100.
inline void SetTwoDigits(char* text, unsigned value) {
  text[0] = static_cast<char>('0' + value / 10);
  text[1] = static_cast<char>('0' + value % 10);
}

// "17:30:41"
inline std::array<char, 8> GetTimeOfDay(TimePoint time) {
  // In whole seconds: the midnight before the earliest `TimePoint` is out of its range.
  auto const now = std::chrono::floor<std::chrono::seconds>(time);
  auto const second =
      static_cast<unsigned>((now - std::chrono::floor<std::chrono::days>(now)).count());
  std::array<char, 8> text{0, 0, ':', 0, 0, ':', 0, 0};
  SetTwoDigits(&text[0], second / 3600);
  SetTwoDigits(&text[3], second / 60 % 60);
  SetTwoDigits(&text[6], second % 60);
  return text;
}

}  // namespace Trace
