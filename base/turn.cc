#include "base/turn.h"

#include <utility>

namespace Base {

Turn::Turn(Shared<ThreadLinux> loop, unsigned steps)
    : _loop(std::move(loop)), _steps(steps), _round(_loop->GetRound()) {}

void Turn::Take(Task const& step) {
  if (GoesOn()) {
    step->Call();
  } else {
    _loop->PostToNextRound(step);
  }
}

void Turn::Post(Task const& step) {
  if (GoesOn()) {
    _loop->PostTask(step);
  } else {
    _loop->PostToNextRound(step);
  }
}

bool Turn::GoesOn() {
  if (_round != _loop->GetRound()) {
    _round = _loop->GetRound();
    _left = _steps;
  }
  if (_left == 0) return false;
  --_left;
  return true;
}

}  // namespace Base
