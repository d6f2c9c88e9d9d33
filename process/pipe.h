#pragma once

#include "base/unique_fd.h"

namespace Process {

// Both ends are close-on-exec and blocking.
struct Pipe {
  Base::UniqueFd readEnd;
  Base::UniqueFd writeEnd;
};

// Makes both ends. Returns 0, or an errno.
int MakePipe(Pipe& pipe);

// Moves both ends above descriptor 2: when a standard stream is closed, pipe2(2) reuses its number,
// and a child that gets one end as its standard stream would overwrite the other. Returns 0, or an
// errno.
int MoveAboveStandardStreams(Pipe& pipe);

}  // namespace Process
