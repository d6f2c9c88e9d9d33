#pragma once

#include <sys/types.h>

namespace Process {

// What a child gets of its parent's descriptors; none of them is that of a standard stream.
struct ChildDescriptors {
  int input;
  int output;
  int error;
  int execStatus;  // closed by the exec, or told the errno with which it failed, as an int
};

// Starts the program `argv[0]`, looked for in PATH, in a child of its own. It gets this process's
// environment, the first three descriptors as its standard streams, whatever else is not
// close-on-exec, no blocked signal, and for every signal the default action. Returns the child's
// process id without waiting for its exec; -1 and errno when there is no child.
pid_t StartChild(char* const* argv, ChildDescriptors const& descriptors);

}  // namespace Process
