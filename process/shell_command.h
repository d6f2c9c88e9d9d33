#pragma once

#include <cstddef>
#include <string>

namespace Process {

// Shell commands run to their end on the calling thread, as popen(3) and pclose(3) do it: `/bin/sh
// -c`, this process's environment, standard input and standard error, the end of the output before
// the end of the shell. What a daemon needs comes on top:
//
//   deadline    setting "command-timeout": seconds from the start, default 10, 0 for none
//   output      at most `maxShellOutput` bytes
//   cancelling  for the process's own end
//
// A command that passes one of them is killed, with every process that is still in its process
// group, and reaped. That a command has ended is seen by both the end of its output and the exit
// of its shell, so a process that it leaves behind with its output open counts as the command. A
// process that has made itself a session or group of its own gets away.
//
// The command starts with the default action for every signal that this process handles, with no
// signal blocked, and with descriptors 0 to 2 only.
//
// Threads: any, also several at once.
inline constexpr std::size_t maxShellOutput = std::size_t{1} << 20U;

struct ShellResult {
  // An errno where the command could not be started; else 0.
  int errorCode = 0;
  // Whether it was ended by force, or not started because of a cancel. A WARNING tells why.
  bool wasStopped = false;
  // Of a command that ended by itself: as waitpid(2) tells it.
  int status = 0;
  // Of a command that ended by itself: what it printed on standard output, unchanged.
  std::string output;
};

ShellResult RunInShell(std::string const& commandLine);

// Makes `CancelShellCommands` effective; before it, the latter does nothing. Throws ExceptionPosix.
void AllowCancelOfShellCommands();

// Cuts every command that runs, and those to come before they start. For good. May be called in a
// signal handler.
void CancelShellCommands() noexcept;

// Whether that has happened: who has a series of commands to run need not begin the next one.
bool AreShellCommandsCancelled() noexcept;

}  // namespace Process
