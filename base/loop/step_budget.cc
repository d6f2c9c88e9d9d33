#include "base/loop/step_budget.h"

#include <utility>

namespace Base {

StepBudget::StepBudget(Shared<ThreadLinux> loop, unsigned steps)
    : _loop(std::move(loop)), _steps(steps), _round(_loop->GetRound()) {}

void StepBudget::Run(Task const& step) {
  if (UseStep()) {
    step->Call();
  } else {
    _loop->PostToNextRound(step);
  }
}

void StepBudget::Post(Task const& step) {
  if (UseStep()) {
    _loop->PostTask(step);
  } else {
    _loop->PostToNextRound(step);
  }
}

bool StepBudget::UseStep() {
  if (_round != _loop->GetRound()) {
    _round = _loop->GetRound();
    _left = _steps;
  }
  if (_left == 0) return false;
  --_left;
  return true;
}

}  // namespace Base
