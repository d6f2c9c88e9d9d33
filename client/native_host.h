#pragma once

#include "client/command_line.h"

// Passes requests from a browser extension to the daemon, and the responses back. A browser starts
// this as the native messaging host of the extension.
//
// Reads packets from standard input, one at a time: sends each to the daemon on a connection of its
// own, and writes the response to standard output before it reads the next packet. Returns the exit
// status:
//
//   Success      the input has ended, or nobody reads the output any more
//   WrongUsage   a packet of the input is broken, too long for the daemon, or not JSON; or the
//                input is a terminal
//   NoResponse   no response, one that is too long for browsers, or it cannot be written
//
// For each status but Success it has printed one line on standard error. Only packets get to
// standard output; from the call on, what else the process prints there goes to standard error.
// Standard input and output become non-blocking, also for other processes that share them.
int RunNativeHost(CommandLine const& commandLine);
