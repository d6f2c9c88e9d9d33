#include "utilities/utilities.h"

#include <time.h>

#include <array>
#include <cstddef>
#include <fstream>
#include <system_error>

#include "process/shell_command.h"
#include "trace/trace.h"

TRACE_MODULE("utilities");

namespace {

using SystemSeconds = std::chrono::time_point<std::chrono::system_clock, std::chrono::seconds>;

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
  std::ifstream file(filename, std::ios::binary);
  if (!file) {
    TRACE_ERROR("Failed to open", filename);
    return {};
  }
  std::string result;
  std::array<char, 4096> piece;
  do {
    file.read(piece.data(), piece.size());
    result.append(piece.data(), static_cast<std::size_t>(file.gcount()));
  } while (file);
  if (file.bad()) {
    TRACE_ERROR("Failed to read", filename);
    return {};
  }
  TRACE_VERBOSE("Read bytes from file", filename, result.length());
  return result;
}

Base::Maybe<Trace::TimePoint> ParseTime(std::string const& text, std::string const& format) {
  tm parts{};
  parts.tm_year = 70;
  parts.tm_mday = 1;
  char const* const end = strptime(text.c_str(), format.c_str(), &parts);
  if (end == text.c_str() + text.size()) {
    auto const time = SystemSeconds(std::chrono::seconds(timegm(&parts)));
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
  time_t const clock = seconds;
  tm parts{};
  std::array<char, 256 + 1> text{};
  std::size_t length = 0;
  if (gmtime_r(&clock, &parts) != nullptr) {
    length = strftime(text.data(), text.size(), format.c_str(), &parts);
  }
  if (length == 0) {
    TRACE_ERROR("Failed to write time to string", seconds, format);
    return {};
  }
  return std::string(text.data(), length);
}
