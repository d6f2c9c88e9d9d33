#include "base/loop/step_budget.h"

#include <utility>

namespace Base {

StepBudget::StepBudget(Shared<ThreadLinux> loop, unsigned stepsPerRound, unsigned stepsThisRound)
    : _loop(std::move(loop)),
      _stepsPerRound(stepsPerRound),
      _round(_loop->GetRound()),
      _left(stepsThisRound) {}

void StepBudget::Run(Task step) {
  if (SpendStep()) {
    step->Call();  // last: this budget may be gone
  } else {
    _loop->PostToNextRound(std::move(step));
  }
}

void StepBudget::Post(Task step) {
  if (SpendStep()) {
    _loop->PostTask(std::move(step));
  } else {
    _loop->PostToNextRound(std::move(step));
  }
}

bool StepBudget::SpendStep() {
  if (_round != _loop->GetRound()) {
    _round = _loop->GetRound();
    _left = _stepsPerRound;
  }
  if (_left == 0) return false;
  --_left;
  return true;
}

}  // namespace Base
