#pragma once

#include <chrono>
#include <span>
#include <string>

#include "net/address.h"

namespace CLI {
class App;
}

// What the command lines of the client's programs have in common. CLI11 knows the options and the
// commands, checks the words against them and prints the help. Two things are different from what
// CLI11 does:
//
// - An option takes its value after "=" or ":", as the daemon's settings do, and never from the
//   next word. CLI11 knows this form as a flag with a value, so options with a value are flags to
//   CLI11, and `ParseWords` writes "=" for ":".
// - KESTREL_SOCKET wins over --socket. To CLI11 a variable is only a default.

// Prepares `app`: options may follow the command, and the help shows an option as "--name=VALUE".
void PrepareApp(CLI::App& app);

// For an `app` that only prints the help of one command: its usage has no other command.
void PrepareHelp(CLI::App& app);

CLI::App* AddCommand(CLI::App& app, std::string const& name, std::string const& meaning);

// `form` is what the help shows after the name, such as "=FILE". A name that ends in "{}" makes an
// option without a value the same as one with an empty value.
void AddOption(CLI::App& app, std::string const& name, std::string& value, std::string const& form,
               std::string const& meaning);

// Adds --socket, with its default as the value. `GetAddress` reads the value.
void AddSocketOption(CLI::App& app, std::string& value);

// Lists an option in the help. The program handles it before CLI11 gets the words; what still
// arrives is "--help=VALUE".
void ListOption(CLI::App& app, std::string const& name, std::string const& form,
                std::string const& meaning);

// Lists --help and --version.
void ListCommonOptions(CLI::App& app);

// Throws Base::Exception, with one line for the user, when the words are wrong.
void ParseWords(CLI::App& app, std::span<char const* const> words);

// Whether an option that needs no value is on. "--name" is, and a value can say it: "true" or "1",
// "false" or "0". `value` is "false" before the words are parsed. Throws Base::Exception, with one
// line for the user, for any other value: a user who has written "--no-redact=yes" or "--yes=no"
// must not get the opposite.
bool IsOn(std::string const& name, std::string const& value);

// Adds --timeout, whose value `ParseTimeout` reads.
void AddTimeoutOption(CLI::App& app, std::string& value, std::string const& meaning);

// Throws Base::Exception, with one line for the user, unless `text` is a number of seconds from 1
// to 86400.
std::chrono::seconds ParseTimeout(std::string const& text);

// Returns the daemon's address: KESTREL_SOCKET if the argument store has it, else `socket`. An
// empty KESTREL_SOCKET stands for the default. Throws Base::Exception when the address cannot be
// used.
Net::Address GetAddress(std::string const& socket);

// Removes the KESTREL_ variables from the environment, because they are settings of the daemon:
// KESTREL_TRACE_CONSOLE, for example, would put a trace between the lines of a response. Keeps only
// KESTREL_SOCKET, which is for the client, too, also in the argument store. Call it before there is
// a second thread.
void UnsetDaemonSettings();

// For the argument store: commands of the client have the deadlines of their callers only.
inline constexpr char const* noCommandTimeout = "--command-timeout=0";
