#pragma once

#include <cstdint>

#include "base/callback.h"
#include "base/loop/thread_linux.h"
#include "base/shared.h"

namespace Base {

// How much one connection, or one file, may do before the loop polls again.
//
// A drain of the loop runs what is posted during it, so work that always finds its next piece ready
// would keep the loop from everyone else, and from its end. Such work asks for each step whether
// its turn goes on, and else comes back in the next round. On the loop's thread.
class StepBudget {
 public:
  // A turn has `steps` steps. In the round in which it is made there is none left.
  StepBudget(Shared<ThreadLinux> loop, unsigned steps);

  // Takes a step: runs `step` now, inside this call, where the turn has one left, else in the
  // loop's next round.
  void Run(Task const& step);

  // The same for a step that must not run inside the call: it is posted where the turn goes on.
  void Post(Task const& step);

 private:
  bool UseStep();

  Shared<ThreadLinux> _loop;
  unsigned const _steps;
  std::uint64_t _round;
  unsigned _left = 0;
};

}  // namespace Base
