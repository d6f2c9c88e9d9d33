#pragma once

#include "base/buffer.h"
#include "base/loop/step_budget.h"
#include "base/shared.h"
#include "io/file_stream.h"

// A byte source with a step budget, so that a client whose bytes are always there cannot keep the
// loop from polling: a round of the loop hands on only a few reads, and the others wait for the
// next round. In all else it is as its source.
//
// The daemon creates one for every packet. A new budget has no steps before the loop has polled, so
// a client gains nothing by many small packets.
class BudgetReadStream final : public IO::FileReadStream {
 public:
  // Runs on the process-wide IO thread.
  explicit BudgetReadStream(Base::Shared<IO::FileReadStream> source);

  void Read(Callback callback) override;
  void ReadInto(Base::Buffer<unsigned char> buffer, Callback callback) override;
  void Close() override;

 private:
  Callback WithinBudget(Callback callback);

  Base::Shared<IO::FileReadStream> _source;
  Base::StepBudget _budget;
};
