#pragma once

#include <chrono>
#include <string>

#include "base/maybe.h"

// Facts from commands and files. Threads: any.

// Runs `command` in a shell to its end, on the calling thread, with the limits of
// process/shell_command.h, and appends what it printed on standard output to `output`, unchanged.
// What the command's exit status is does not count. False, and nothing appended, when it could not
// be started, passed a limit, or was cancelled.
//
// Commands start with "LC_ALL=C ", so that the tools answer in the C locale.
bool ExecuteCommand(std::string const& command, std::string& output);

// What the command printed; the default where `ExecuteCommand` is false.
std::string ExecuteCommandOrDefault(std::string const& command, std::string const& defaultOutput);

// The names of the realms that this machine has joined, a line each, as realm(8) tells them; empty
// where there is no such command.
std::string GetRealmList();

// All bytes of a file; empty when it cannot be read to its end.
Base::Maybe<std::string> ReadFile(std::string const& filename);

// A point in time as text in UTC, after a format of strftime(3) and strptime(3), of a whole second:
// fractions are neither written nor read.
using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

// Empty unless the whole text is as the format has it and is within the range of `TimePoint` (the
// years 1678 to 2261). What the format leaves out is that of 1970-01-01 00:00:00.
Base::Maybe<TimePoint> ParseTime(std::string const& text, std::string const& format);

// Empty for a format that results in nothing or in more than 256 bytes.
Base::Maybe<std::string> FormatTime(TimePoint time, std::string const& format);
