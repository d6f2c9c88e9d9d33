#pragma once

#include "base/buffer.h"
#include "base/loop/step_budget.h"
#include "base/shared.h"
#include "io/file_stream.h"

// A byte source that takes turns: reads whose bytes are there already are handed on a few at a
// time. Made anew for every packet: when the first bytes of the next one are there before the loop
// has polled, they wait for the next round. Otherwise as its source.
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
