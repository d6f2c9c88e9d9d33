#include "utilities/utilities.h"

#include <time.h>

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <system_error>
#include <tuple>

#include "process/shell_command.h"
#include "trace/trace.h"
#include "utilities/file_bytes.h"

TRACE_MODULE("utilities");

namespace {

using SystemSeconds = std::chrono::time_point<std::chrono::system_clock, std::chrono::seconds>;

// The first conversion "%s" in a format, with its flags and width; empty when there is none. It is
// not left to the C library, whose %s is about the local time zone.
std::string_view FindEpochConversion(std::string_view format) {
  for (auto begin = format.find('%'); begin != std::string_view::npos;) {
    auto const end = format.find_first_not_of("_-0^#+123456789EO", begin + 1);
    if (end == std::string_view::npos) return {};
    if (format[end] == 's') return format.substr(begin, end + 1 - begin);
    begin = format.find('%', end + 1);
  }
  return {};
}

Base::Maybe<std::int64_t> ParseEpochTime(std::string_view text, std::string_view format) {
  std::int64_t seconds = 0;
  char const* const end = text.data() + text.size();
  auto const result = std::from_chars(text.data(), end, seconds);
  if (format != "%s" || result.ec != std::errc() || result.ptr != end) return {};
  return seconds;
}

Base::Maybe<std::int64_t> ParseCalendarTime(std::string const& text, std::string const& format) {
  tm parts{};
  parts.tm_year = 70;
  parts.tm_mday = 1;
  char const* const end = strptime(text.c_str(), format.c_str(), &parts);
  if (end != text.c_str() + text.size()) return {};
  // timegm replaces a day or second that does not exist by a later one, and clears the offset.
  tm const read = parts;
  time_t const seconds = timegm(&parts);
  auto const fields = [](tm const& time) {
    return std::tuple(time.tm_year, time.tm_mon, time.tm_mday, time.tm_hour, time.tm_min,
                      time.tm_sec);
  };
  if (fields(parts) != fields(read)) return {};
  return seconds - read.tm_gmtoff;
}

}  // namespace

bool ExecuteCommand(std::string const& command, std::string& output) {
  Process::ShellResult const result = Process::RunInShell(command);
  if (result.errorCode != 0) {
    TRACE_ERROR("Command failed with error", command,
                Trace::As("strerror((*__errno_location ()))",
                          std::generic_category().message(result.errorCode)));
    return false;
  }
  if (result.wasStopped) return false;
  output.append(result.output);
  int const status = result.status;
  int const exitCode = result.exitCode;
  TRACE_VERBOSE("Command executed with status, exit code, output", command, status, exitCode,
                Trace::As("output", result.output));
  return true;
}

std::string ExecuteCommandOrDefault(std::string const& command, std::string const& defaultOutput) {
  std::string output;
  return ExecuteCommand(command, output) ? output : defaultOutput;
}

std::string GetRealmList() { return ExecuteCommandOrDefault("LC_ALL=C realm list -n", ""); }

Base::Maybe<std::string> ReadFile(std::string const& filename) {
  std::string result;
  ReadOutcome const outcome = AppendFileBytes(filename, result);
  if (outcome == ReadOutcome::NotOpened) {
    TRACE_ERROR("Failed to open", filename);
    return {};
  }
  if (outcome == ReadOutcome::Failed) {
    TRACE_ERROR("Failed to read", filename);
    return {};
  }
  TRACE_VERBOSE("Read bytes from file", filename, result.length());
  return result;
}

Base::Maybe<Trace::TimePoint> ParseTime(std::string const& text, std::string const& format) {
  Base::Maybe<std::int64_t> const seconds = FindEpochConversion(format).empty()
                                                ? ParseCalendarTime(text, format)
                                                : ParseEpochTime(text, format);
  if (seconds) {
    auto const time = SystemSeconds(std::chrono::seconds(seconds.Get()));
    // The first and the last second are in range only in part, so neither is accepted.
    bool const fits = time >= std::chrono::ceil<std::chrono::seconds>(Trace::TimePoint::min()) &&
                      time < std::chrono::floor<std::chrono::seconds>(Trace::TimePoint::max());
    if (fits) return Trace::TimePoint(time);
  }
  TRACE_ERROR("Failed to parse time from text", text, format);
  return {};
}

Base::Maybe<std::string> FormatTime(Trace::TimePoint time, std::string const& format) {
  auto const seconds = std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
  std::string expanded = format;
  for (;;) {
    std::string_view const conversion = FindEpochConversion(expanded);
    if (conversion.empty()) break;
    auto const begin = static_cast<std::size_t>(conversion.data() - expanded.data());
    expanded.replace(begin, conversion.size(), std::to_string(seconds));
  }
  time_t const clock = seconds;
  tm parts{};
  std::array<char, 256 + 1> text{};
  std::size_t length = 0;
  if (gmtime_r(&clock, &parts) != nullptr) {
    length = strftime(text.data(), text.size(), expanded.c_str(), &parts);
  }
  if (length == 0) {
    TRACE_ERROR("Failed to write time to string", seconds, format);
    return {};
  }
  return std::string(text.data(), length);
}
