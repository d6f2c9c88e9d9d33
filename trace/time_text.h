#pragma once

#include <chrono>
#include <string>
#include <string_view>

// Times as text, in UTC. Computed with <chrono>'s calendar: gmtime_r(3) takes a lock of the C
// library, which a forked child could find taken.

namespace Trace {

// "17:30:41"
void AppendTimeOfDay(std::string& out, std::chrono::system_clock::time_point time);

// "2026-05-03T17:30:41.042Z"
void AppendTimePoint(std::string& out, std::chrono::system_clock::time_point time);

// "20260503_173041", for file names
void AppendFileTime(std::string& out, std::chrono::system_clock::time_point time);

// The milliseconds of the second, 0 to 999.
unsigned GetMilliseconds(std::chrono::system_clock::time_point time);

// `value` in decimal, with zeros on its left up to `width` digits.
void AppendPadded(std::string& out, unsigned value, unsigned width);

}  // namespace Trace
