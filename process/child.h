#pragma once

#include <sys/types.h>

namespace Process {

// The descriptors of the parent that a child uses. Each is above 2, so that no `dup2` in the child
// overwrites one that it still needs.
struct ChildDescriptors {
  int input;
  int output;
  int error;
  int execStatus;  // a successful exec closes it; else the child writes the errno of exec as an int
};

// Starts the program `argv[0]`, a path or a name to look for in PATH, in a new child process. The
// child gets this process's environment, `input`, `output` and `error` as its descriptors 0 to 2,
// and every other descriptor that is not close-on-exec. No signal is blocked in the child, and each
// signal has its default action.
//
// Returns the child's process id without waiting for its exec; -1, with errno, when fork(2) failed.
pid_t StartChild(char* const* argv, ChildDescriptors const& descriptors);

}  // namespace Process
