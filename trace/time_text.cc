#include "trace/time_text.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "base/exception.h"

namespace Trace {

namespace {

void AppendDate(std::string& out, TimePoint time, std::string_view separator) {
  std::chrono::year_month_day const date(std::chrono::floor<std::chrono::days>(time));
  AppendPadded(out, static_cast<unsigned>(static_cast<int>(date.year())), 4);
  out.append(separator);
  AppendPadded(out, static_cast<unsigned>(date.month()), 2);
  out.append(separator);
  AppendPadded(out, static_cast<unsigned>(date.day()), 2);
}

// Reads a text from its front to its end; each step takes what it has read off the text.
class TimeReader {
 public:
  explicit TimeReader(std::string_view text) : _text(text) {}

  bool IsAtEnd() const { return _text.empty(); }

  bool TakeIf(char expected) {
    if (!_text.starts_with(expected)) return false;
    _text.remove_prefix(1);
    return true;
  }

  void Take(char expected) { Require(TakeIf(expected)); }

  // Exactly `length` decimal digits.
  unsigned TakeNumber(std::size_t length) {
    Require(_text.size() >= length);
    unsigned number = 0;
    for (char const c : _text.substr(0, length)) {
      Require(c >= '0' && c <= '9');
      number = number * 10 + static_cast<unsigned>(c - '0');
    }
    _text.remove_prefix(length);
    return number;
  }

  // The digits of a fraction of a second.
  std::chrono::nanoseconds TakeFraction() {
    constexpr std::size_t digitsOfNanosecond = 9;
    std::size_t const length = std::min(_text.find_first_not_of("0123456789"), _text.size());
    Require(length >= 1 && length <= digitsOfNanosecond);
    std::int64_t count = TakeNumber(length);
    for (std::size_t i = length; i < digitsOfNanosecond; ++i) count *= 10;
    return std::chrono::nanoseconds(count);
  }

  static void Require(bool condition) {
    if (!condition) throw Base::Exception("Failed to parse time");
  }

 private:
  std::string_view _text;
};

}  // namespace

void AppendTimePoint(std::string& out, TimePoint time) {
  AppendDate(out, time, "-");
  auto const timeOfDay = GetTimeOfDay(time);
  out.append("T").append(timeOfDay.data(), timeOfDay.size()).append(".");
  AppendPadded(out, GetMilliseconds(time), 3);
  out.append("Z");
}

TimePoint ParseTimePoint(std::string_view text) {
  TimeReader reader(text);
  std::chrono::year const year(static_cast<int>(reader.TakeNumber(4)));
  reader.Take('-');
  std::chrono::month const month(reader.TakeNumber(2));
  reader.Take('-');
  std::chrono::day const day(reader.TakeNumber(2));
  reader.Take('T');
  unsigned const hours = reader.TakeNumber(2);
  reader.Take(':');
  unsigned const minutes = reader.TakeNumber(2);
  reader.Take(':');
  unsigned const seconds = reader.TakeNumber(2);
  auto const fraction = reader.TakeIf('.') ? reader.TakeFraction() : std::chrono::nanoseconds(0);
  reader.Take('Z');
  std::chrono::year_month_day const date(year, month, day);
  TimeReader::Require(reader.IsAtEnd() && date.ok());
  TimeReader::Require(hours < 24 && minutes < 60 && seconds < 60);
  auto const time = std::chrono::sys_days(date) + std::chrono::hours(hours) +
                    std::chrono::minutes(minutes) + std::chrono::seconds(seconds);
  // The last second of the range is excluded, because a fraction may not fit into it.
  constexpr auto first = std::chrono::ceil<std::chrono::seconds>(TimePoint::min());
  constexpr auto last = std::chrono::floor<std::chrono::seconds>(TimePoint::max());
  TimeReader::Require(time >= first && time < last);
  return time + fraction;
}

void AppendFileTime(std::string& out, TimePoint time) {
  AppendDate(out, time, "");
  out.append("_");
  auto const timeOfDay = GetTimeOfDay(time);
  std::ranges::remove_copy(timeOfDay, std::back_inserter(out), ':');
}

unsigned GetMilliseconds(TimePoint time) {
  constexpr TimePoint::duration second = std::chrono::seconds(1);
  auto const fraction = (time.time_since_epoch() % second + second) % second;
  return static_cast<unsigned>(std::chrono::floor<std::chrono::milliseconds>(fraction).count());
}

}  // namespace Trace
