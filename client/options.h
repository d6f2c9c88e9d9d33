#pragma once

#include <CLI/CLI.hpp>
#include <span>
#include <string>

#include "net/address.h"

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

// Whether an option that needs no value is on: "--name" and "--name=1" are, "--name=0" is not.
// `value` is "false" before the words are parsed.
bool IsOn(std::string const& value);

// Returns the daemon's address: KESTREL_SOCKET if the argument store has it, else `socket`. An
// empty KESTREL_SOCKET stands for the default. Throws Base::Exception when the address cannot be
// used.
Net::Address GetAddress(std::string const& socket);

// Removes the KESTREL_ variables from the environment, because they are settings of the daemon:
// KESTREL_TRACE_CONSOLE, for example, would put a trace between the lines of a response. Keeps only
// KESTREL_SOCKET, which is for the client, too. Call it before there is a second thread.
void UnsetDaemonSettings();
