#include "daemon/turn.h"

#include <utility>

Turn::Turn(Base::Shared<Base::ThreadLinux> loop, unsigned steps)
    : _loop(std::move(loop)), _steps(steps), _round(_loop->GetRound()) {}

void Turn::Take(Base::Task const& step) {
  if (_round != _loop->GetRound()) {
    _round = _loop->GetRound();
    _left = _steps;
  }
  if (_left > 0) {
    --_left;
    step->Call();
  } else {
    // A scheduled task waits for the next round, a posted one would not.
    _loop->PostScheduledTask(0, step);
  }
}
