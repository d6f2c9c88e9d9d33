#pragma once

#include <string>

#include "client/command_line.h"

// Sends the request of `commandLine` and returns the response. Throws Base::Exception, with one
// line for the user, when there is no response in time.
std::string SendRequest(CommandLine const& commandLine);

// Sends the request of `commandLine`, prints the response as JSON, and returns the exit status.
// Each failure is one line on standard error.
int RunRequest(CommandLine const& commandLine);
