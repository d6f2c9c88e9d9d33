#pragma once

#include <cstdint>

#include "base/callback.h"
#include "base/loop/thread_linux.h"
#include "base/shared.h"

namespace Base {

// A budget of steps for each round of a loop, so that one busy connection or file cannot starve the
// others.
//
// The loop runs every task that is posted while it drains its queue, and polls only then. Work that
// always finds its next piece ready would keep the loop from polling, and from ending. Such work
// takes each step through a budget: when the budget is used up, the step waits for the next round,
// which fills the budget again.
//
// Threads: the loop's.
class StepBudget {
 public:
  // `stepsThisRound`: what the new budget has until the loop polls. Deliberate: without it nothing,
  // so re-creating a budget gains nothing.
  StepBudget(Shared<ThreadLinux> loop, unsigned stepsPerRound, unsigned stepsThisRound = 0);

  // Within the budget, runs `step` inside this call; else posts it to the loop's next round. The
  // step may destroy this budget and every other handle to itself.
  void Run(Task step);

  // For a step that must not run inside the call: within the budget, posts `step` to the current
  // round, else to the next.
  void Post(Task step);

  // Spends a step of this round. Returns false when none is left: the caller then leaves its work
  // to the loop's next round.
  bool SpendStep();

 private:
  Shared<ThreadLinux> _loop;
  unsigned const _stepsPerRound;
  std::uint64_t _round;
  unsigned _left;  // of this round
};

}  // namespace Base
