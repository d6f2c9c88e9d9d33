#pragma once

#include <chrono>
#include <string>

#include "net/address.h"

// What `ktclientctl` was asked to do.
struct CommandLine {
  Net::Address address;
  std::string request;  // JSON
  std::chrono::seconds timeout{};
  bool compact = false;  // the answer on one line
};

// Reads the command line from the argument store, and the request from standard input where it says
// so. Throws Base::Exception, with one line for the user, when it is wrong.
CommandLine ReadCommandLine();

// What `ktclientctl --help` prints.
char const* GetUsage();
