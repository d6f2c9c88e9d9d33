#pragma once

#include <cstddef>
#include <string>

namespace Process {

// Runs shell commands to their end on the calling thread, as popen(3) and pclose(3) do: the command
// is one of `/bin/sh -c` and gets this process's standard input and standard error. The command
// ends when its output has ended and its shell has exited. So a process that the command leaves
// behind counts as part of the command for as long as it holds the output open.
//
// What a command inherits besides:
//
//   descriptors  none above 2, close-on-exec or not
//   signals      none blocked, each with its default action, also one that this process ignores
//   environment  without NOTIFY_SOCKET, LISTEN_* and KESTREL_*, which are for this process only
//
// Four things stop a command early, each with a WARNING line:
//
//   deadline  seconds from the start: setting "command-timeout", default 10, 0 for no deadline
//   budget    the end of the thread's `CommandBudget` (process/command_budget.h), if it has one
//   output    more than `maxShellOutput` bytes on standard output
//   cancel    `CancelShellCommands`, when this process is to end
//
// A command is not even started after the end of the budget or after a cancel. The current budget
// stores why a command was stopped, unless by a cancel, or why it could not be started.
//
// A stopped command is killed together with every process in its process group, and its shell is
// reaped. A process that has moved to a session or a group of its own survives. A shell that the
// kernel holds is reaped by a later `RunInShell`, after a WARNING line "Command cannot be killed".
//
// In a process that ignores SIGCHLD the kernel reaps the shell itself: `status` is then -1 and
// `exitCode` 255, and the end of a stopped command can kill a process group that has got the number
// of a shell that had exited before.
//
// Threads: any, several commands at a time too.
inline constexpr std::size_t maxShellOutput = std::size_t{1} << 20U;

// How a command ended.
struct ShellResult {
  // The errno of a command that could not be started, after a WARNING line; else 0.
  int errorCode = 0;
  // Whether one of the four things above stopped the command or kept it from being started.
  bool wasStopped = false;
  // The fields below are for a command that ended by itself.
  int status = 0;      // as waitpid(2) stores it
  int exitCode = 0;    // bits 8 to 15 of `status`. Deliberate: 0 when a signal ended the shell
  std::string output;  // all of the standard output, unchanged
};

// Runs `commandLine` and blocks until it has ended or is stopped. Never throws Base::Exception.
ShellResult RunInShell(std::string const& commandLine);

// Makes `CancelShellCommands` work; before this call it does nothing. Throws Base::ExceptionPosix
// when the kernel refuses an eventfd.
void AllowCancelOfShellCommands();

// Stops every running command, and each later one before it starts. There is no way back. May be
// called in a signal handler.
void CancelShellCommands() noexcept;

// Whether commands have been cancelled. A caller with a series of commands can then leave out the
// remaining ones.
bool AreShellCommandsCancelled() noexcept;

}  // namespace Process
