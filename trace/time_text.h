#pragma once

#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

// Times as text, in UTC. Computed with <chrono>'s calendar: gmtime_r(3) takes a lock of the C
// library, which a forked child could find taken.

namespace Trace {

// "2026-05-03T17:30:41.042Z"
void AppendTimePoint(std::string& out, std::chrono::system_clock::time_point time);

// The point in time of a text as above; the fraction may have one to nine digits, or be left away
// with its point. Throws Base::Exception "Failed to parse time" for anything else, a day or time
// that does not exist included, second 60 too, and for what a time point cannot hold: it begins in
// 1677 and ends in 2262.
std::chrono::system_clock::time_point ParseTimePoint(std::string_view text);

// "20260503_173041", for file names
void AppendFileTime(std::string& out, std::chrono::system_clock::time_point time);

// The milliseconds of the second, 0 to 999.
unsigned GetMilliseconds(std::chrono::system_clock::time_point time);

// `value` in decimal, with zeros on its left up to `width` digits.
template <typename Text>
void AppendPadded(Text& out, unsigned value, unsigned width) {
  std::array<char, 10> digits;
  char const* const end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  auto const length = static_cast<std::size_t>(end - digits.data());
  if (length < width) out.append(width - length, '0');
  out.append(digits.data(), length);
}

// "17:30:41"
template <typename Text>
void AppendTimeOfDay(Text& out, std::chrono::system_clock::time_point time,
                     std::string_view separator = ":") {
  // In seconds first: the midnight before the earliest time point is none.
  auto const second = std::chrono::floor<std::chrono::seconds>(time);
  std::chrono::hh_mm_ss const clock(second - std::chrono::floor<std::chrono::days>(second));
  AppendPadded(out, static_cast<unsigned>(clock.hours().count()), 2);
  out.append(separator);
  AppendPadded(out, static_cast<unsigned>(clock.minutes().count()), 2);
  out.append(separator);
  AppendPadded(out, static_cast<unsigned>(clock.seconds().count()), 2);
}

}  // namespace Trace
