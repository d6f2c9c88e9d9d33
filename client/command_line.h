#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "net/address.h"

constexpr std::uint32_t maxRequestSize = 131072;  // the daemon closes the connection above it

// What the user wants `ktclientctl` to do.
struct CommandLine {
  std::string command;  // such as "hardware"
  Net::Address address;
  std::string request;  // JSON; empty for a command that sends no request of the user
  std::chrono::seconds timeout{};
  bool compact = false;  // print JSON on one line
  bool json = false;     // print the results of "doctor" as JSON
};

// Returns the command, the first word that is not an option; empty when there is none.
std::string_view GetCommandName(int argc, char const* const* argv);

// Reads the words after the program's name, and for `send -` the request from standard input.
// Fills the argument store with the `--trace-` options and the environment.
// Throws Base::Exception, with one line for the user, when the command line is wrong.
CommandLine ReadCommandLine(int argc, char const* const* argv);

// What `ktclientctl --help` prints; with `command`, if there is one of this name, what `ktclientctl
// COMMAND --help` prints.
std::string GetHelp(std::string_view command);
