#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/maybe.h"

// The settings of the process: its command line, and then those environment variables whose name
// starts with "KESTREL_". The last entry of a name wins, so the environment wins over the command
// line.
//
//   --name=value, --name:value    named; the first ":" or "=" ends the name
//   --name                        flag
//   anything else, argv[0] too    field: kept, but has no name to look it up by
//   KESTREL_NAME=value            named; an empty value makes it a flag
//
// Names are compared in lower case with "_" for "-": "trace-level", `TRACE_LEVEL` and "Trace-Level"
// are one setting. An entry is kept but cannot be looked up when its name is then empty or has a
// character other than ASCII letters, digits and "_".
//
// Threads: one thread fills the store before there are others; from then on it is read-only.
// Errors:  none; a getter returns the caller's default for an absent or malformed value.

// Bits of an entry's kind: one source and one form.
inline constexpr std::uint32_t argumentFromCommandLine = 1;
inline constexpr std::uint32_t argumentFromEnvironment = 2;
inline constexpr std::uint32_t argumentNamed = 16;
inline constexpr std::uint32_t argumentFlag = 32;
inline constexpr std::uint32_t argumentField = 64;

struct Argument {
  std::uint32_t kind = 0;
  std::string text;   // as written; for the environment the whole "KESTREL_NAME=value"
  std::string name;   // as written, without "--"; normalised, for the environment; else empty
  std::string value;  // of a named argument
};

// Clears the store and fills it from `argv` and the environment; without arguments, from the
// environment alone.
void ParseArguments(int argc = 0, char const* const* argv = nullptr);

// Whether an element of `argv` equals `word` exactly. Does not use the store: for options such as
// "--help", after which a program does not start.
bool IsWordOfCommandLine(int argc, char const* const* argv, std::string_view word);

// The form in which names are compared.
std::string NormaliseArgumentName(std::string_view name);

// Every entry, in the order of insertion.
std::vector<Argument> const& GetArguments();

// The number of entries before the command line was added, and after it.
std::size_t GetArgumentCountBeforeCommandLine();
std::size_t GetArgumentCountAfterCommandLine();

// Whether the name is present, as a flag or with any value.
bool HasArgument(std::string_view name);

// The value of a named argument; the default when it is absent or a flag.
std::string GetArgument(std::string_view name, std::string_view defaultValue);

// A flag, "1" and "true" in any case are true; "0" and "false" in any case are false; any other
// value is the default.
bool GetBoolArgument(std::string_view name, bool defaultValue);

// Decimal numbers: digits, after a "-" for a negative one. Any other value, and a number out of
// range, is the default.
std::int32_t GetIntArgument(std::string_view name, std::int32_t defaultValue);
std::uint32_t GetUnsignedArgument(std::string_view name, std::uint32_t defaultValue);

// Empty for an absent value, and where the getters above return the default.
Base::Maybe<std::int64_t> GetInt64Argument(std::string_view name);
