#pragma once

#include "base/unique_fd.h"

namespace Process {

// Both ends are close-on-exec and blocking.
struct Pipe {
  Base::UniqueFd readEnd;
  Base::UniqueFd writeEnd;
};

// Makes both ends. Returns an errno, or 0.
int MakePipe(Pipe& pipe);

// Gives an end another number if it has one of the standard streams', which it gets where those are
// closed: whoever puts one end in such a place must not overwrite another. Returns an errno, or 0.
int KeepClearOfStandardStreams(Pipe& pipe);

}  // namespace Process
