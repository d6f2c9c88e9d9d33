#include "base/loop/step_budget.h"

#include <utility>

namespace Base {

StepBudget::StepBudget(Shared<ThreadLinux> loop, unsigned stepsPerRound)
    : _loop(std::move(loop)), _stepsPerRound(stepsPerRound), _round(_loop->GetRound()) {}

void StepBudget::Run(Task const& step) {
  if (SpendStep()) {
    step->Call();
  } else {
    _loop->PostToNextRound(step);
  }
}

void StepBudget::Post(Task const& step) {
  if (SpendStep()) {
    _loop->PostTask(step);
  } else {
    _loop->PostToNextRound(step);
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
