#pragma once

#include <chrono>
#include <string>

#include "net/address.h"

// What the user wants `ktclientctl` to do.
struct CommandLine {
  Net::Address address;
  std::string request;  // JSON
  std::chrono::seconds timeout{};
  bool compact = false;  // print the response on one line
};

// Reads the words after the program's name, and for `send -` the request from standard input.
// Fills the argument store with the `--trace-` options and the environment.
// Throws Base::Exception, with one line for the user, when the command line is wrong.
CommandLine ReadCommandLine(int argc, char const* const* argv);

// What `ktclientctl --help` prints.
std::string GetHelp();
