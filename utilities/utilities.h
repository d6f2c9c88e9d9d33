#pragma once

#include <string>

#include "base/maybe.h"
#include "trace/time_text.h"

// Facts from commands and files. Threads: any.

// Runs `command` by `RunInShell` (process/shell_command.h), on the calling thread, and appends its
// standard output to `output`, unchanged. A command that runs and fails counts as success: its exit
// code only goes to the trace log. Returns false and appends nothing when the command could not be
// started, or was stopped by a limit or by a cancel.
//
// Begin each command with "LC_ALL=C ", so that its tools print what they print in the C locale.
bool ExecuteCommand(std::string const& command, std::string& output);

// Returns the command's standard output, or `defaultOutput` when `ExecuteCommand` returns false.
std::string ExecuteCommandOrDefault(std::string const& command, std::string const& defaultOutput);

// Returns the names of the realms that this machine has joined, one a line, as `realm list -n`
// prints them (realm(8)). Empty when the machine has no such command.
std::string GetRealmList();

// Returns all bytes of a file; empty, after an ERROR line, when it cannot be read to its end.
Base::Maybe<std::string> ReadFile(std::string const& filename);

// Times as text: in UTC, in a format of strftime(3) and strptime(3), without fractions of a second.
// "%s" is the number of seconds since 1970-01-01 00:00:00 UTC, whatever the local time zone is.

// Reads `text` as a time. Fields that are missing in `format` are those of 1970-01-01 00:00:00. The
// offset of "%z" counts: "12:00 +0100" is 11:00 in UTC. The name of "%Z" has no effect.
//
// Empty, after an ERROR line, when the format does not match the whole text, for a day or time that
// does not exist (second 60 is one), for a format with "%s" and anything else, and for a time
// outside the range of `Trace::TimePoint`: from 1677-09-21 to 2262-04-11.
Base::Maybe<Trace::TimePoint> ParseTime(std::string const& text, std::string const& format);

// Returns `time` as text, rounded down to a second. Flags and width of "%s" have no effect. Empty,
// after an ERROR line, when the result would have no byte or more than 256.
Base::Maybe<std::string> FormatTime(Trace::TimePoint time, std::string const& format);
