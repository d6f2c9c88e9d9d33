#pragma once

#include <string>

namespace Process {

// Runs `commandLine` in a shell (`sh -c`) to its end, on the calling thread, and puts what it
// printed on standard output into `output`, without the white space at its start and end. Returns
// the command's exit code; 1, and no output, where no shell could be started, and for a command
// that passed a limit of base/shell_command.h or was cancelled; 0 for one that a signal ended.
int ExecuteSyncCommand(std::string const& commandLine, std::string& output);

}  // namespace Process
