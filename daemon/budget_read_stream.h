#pragma once

#include <cstddef>

#include "base/buffer.h"
#include "base/loop/step_budget.h"
#include "base/shared.h"
#include "net/socket.h"

// A socket as a byte source with a step budget, so that a client whose bytes are always there
// cannot keep the loop from polling: a round of the loop hands on only a few reads, and the others
// wait for the next round.
//
// The daemon creates one for every packet. A new budget has no steps before the loop has polled, so
// a client gains nothing by many small packets.
class BudgetReadStream final : public Net::SocketReadStream {
 public:
  // Runs on the process-wide IO thread.
  BudgetReadStream(Base::Shared<Net::Socket> socket, std::size_t bufferSize);

 private:
  void ReadOnce(Base::ByteBuffer buffer, Callback callback) override;

  Base::StepBudget _budget;
};
