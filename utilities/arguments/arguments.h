#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/maybe.h"

// The process's settings: its command line and those environment variables whose name starts with
// "KESTREL_". A later entry wins over an earlier one of the same name, so the environment wins over
// the command line.
//
//   --name=value, --name:value    named; the first ":" or "=" ends the name
//   --name                        flag
//   anything else, argv[0] too    field: kept, found under no name
//   KESTREL_NAME=value            named; an empty value makes it a flag
//
// Names are compared after lower-casing and turning "-" into "_": "trace-level", `TRACE_LEVEL` and
// "Trace-Level" are one setting. A name that is then empty, or has a character other than ASCII
// letters, digits and "_", is kept but cannot be looked up.
//
// Threads: filled by one thread before there are others, read-only from then on.
// Errors:  none; what is absent or malformed reads as the caller's default.

// Bits of an entry's kind: one source and one form.
inline constexpr std::uint32_t argumentFromCommandLine = 1;
inline constexpr std::uint32_t argumentFromEnvironment = 2;
inline constexpr std::uint32_t argumentNamed = 16;
inline constexpr std::uint32_t argumentFlag = 32;
inline constexpr std::uint32_t argumentField = 64;

struct Argument {
  std::uint32_t kind = 0;
  std::string text;   // as written; for the environment the whole "KESTREL_NAME=value"
  std::string name;   // as written, without "--" or "KESTREL_"; empty for a field
  std::string value;  // of a named argument
};

// Fills the store anew from `argv` and the environment; without arguments from the latter alone.
void ParseArguments(int argc = 0, char const* const* argv = nullptr);

// Whether `word` is one of the command line's, as it is: for what a program does instead of
// starting.
bool IsWordOfCommandLine(int argc, char const* const* argv, std::string_view word);

// `name` as names are compared.
std::string NormaliseArgumentName(std::string_view name);

// Every entry, in the order of insertion.
std::vector<Argument> const& GetArguments();

// How many of them stood before the command line was added, and how many after it.
std::size_t GetArgumentCountBeforeCommandLine();
std::size_t GetArgumentCountAfterCommandLine();

// Whether the name is there, as a flag or with whatever value.
bool HasArgument(std::string_view name);

// The value of a named argument; the default when it is absent or a flag.
std::string GetArgument(std::string_view name, std::string_view defaultValue);

// A flag, "1" and "true" in any case are true; "0" and "false" in any case are false; any other
// value is the default.
bool GetBoolArgument(std::string_view name, bool defaultValue);

// Whole decimal numbers, an optional "-" (for the signed ones) and digits; anything else, a number
// out of range included, is the default.
std::int32_t GetIntArgument(std::string_view name, std::int32_t defaultValue);
std::uint32_t GetUnsignedArgument(std::string_view name, std::uint32_t defaultValue);

// Empty when absent or not a number.
Base::Maybe<std::int64_t> GetInt64Argument(std::string_view name);
