#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "client/command_line.h"

// Sends the request of `commandLine` and returns the response. Throws Base::Exception, with one
// line for the user, when there is no response in time.
std::string SendRequest(CommandLine const& commandLine);

// Returns the JSON of a response; null when it is broken: when it is not JSON, has no status, or is
// so deep or so large that printing it could use up the stack or the memory.
nlohmann::json ParseResponse(std::string const& text);

// Sends the request of `commandLine`, prints the response as JSON, and returns the exit status.
// Each failure is one line on standard error.
int RunRequest(CommandLine const& commandLine);
