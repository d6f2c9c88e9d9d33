#pragma once

#include "client/command_line.h"

// Sends the request of `commandLine`, prints the response as JSON, and returns the exit status.
// Each failure is one line on standard error.
int RunRequest(CommandLine const& commandLine);
