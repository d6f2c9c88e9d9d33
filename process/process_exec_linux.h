#pragma once

#include <string>

namespace Process {

// Runs `commandLine` in a shell (`sh -c`) to its end, on the calling thread, and puts what it
// printed on standard output into `output`, without the white space at its start and end. Returns
// the command's exit code; 1 where no shell could be started; 0 for one that a signal ended. The
// command gets this process's environment and standard error, descriptors 0 to 2, and no blocked
// signal.
int ExecuteSyncCommand(std::string const& commandLine, std::string& output);

}  // namespace Process
