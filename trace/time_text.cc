#include "trace/time_text.h"

#include <cstddef>

namespace Trace {

namespace {

using TimePoint = std::chrono::system_clock::time_point;

void AppendDate(std::string& out, TimePoint time, std::string_view separator) {
  std::chrono::year_month_day const date(std::chrono::floor<std::chrono::days>(time));
  AppendPadded(out, static_cast<unsigned>(static_cast<int>(date.year())), 4);
  out.append(separator);
  AppendPadded(out, static_cast<unsigned>(date.month()), 2);
  out.append(separator);
  AppendPadded(out, static_cast<unsigned>(date.day()), 2);
}

void AppendClock(std::string& out, TimePoint time, std::string_view separator) {
  auto const midnight = std::chrono::floor<std::chrono::days>(time);
  std::chrono::hh_mm_ss const clock(std::chrono::floor<std::chrono::seconds>(time - midnight));
  AppendPadded(out, static_cast<unsigned>(clock.hours().count()), 2);
  out.append(separator);
  AppendPadded(out, static_cast<unsigned>(clock.minutes().count()), 2);
  out.append(separator);
  AppendPadded(out, static_cast<unsigned>(clock.seconds().count()), 2);
}

}  // namespace

void AppendTimeOfDay(std::string& out, TimePoint time) { AppendClock(out, time, ":"); }

void AppendTimePoint(std::string& out, TimePoint time) {
  AppendDate(out, time, "-");
  out.append("T");
  AppendClock(out, time, ":");
  out.append(".");
  AppendPadded(out, GetMilliseconds(time), 3);
  out.append("Z");
}

void AppendFileTime(std::string& out, TimePoint time) {
  AppendDate(out, time, "");
  out.append("_");
  AppendClock(out, time, "");
}

unsigned GetMilliseconds(TimePoint time) {
  auto const second = std::chrono::floor<std::chrono::seconds>(time);
  return static_cast<unsigned>(
      std::chrono::floor<std::chrono::milliseconds>(time - second).count());
}

void AppendPadded(std::string& out, unsigned value, unsigned width) {
  std::string const digits = std::to_string(value);
  if (digits.size() < width) out.append(width - digits.size(), '0');
  out.append(digits);
}

}  // namespace Trace
