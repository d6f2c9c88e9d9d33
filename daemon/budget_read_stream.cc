#include "daemon/budget_read_stream.h"

#include <utility>

#include "base/loop/io_thread.h"
#include "base/stream.h"

namespace {

// Enough for the header and the payload of a packet, and for a payload in a few pieces.
constexpr unsigned readsPerRound = 8;

}  // namespace

BudgetReadStream::BudgetReadStream(Base::Shared<IO::FileReadStream> source)
    : _source(std::move(source)), _budget(Base::GetIOThread(), readsPerRound) {}

void BudgetReadStream::Read(Callback callback) { _source->Read(WithinBudget(std::move(callback))); }

void BudgetReadStream::ReadInto(Base::Buffer<unsigned char> buffer, Callback callback) {
  _source->ReadInto(std::move(buffer), WithinBudget(std::move(callback)));
}

void BudgetReadStream::Close() { _source->Close(); }

BudgetReadStream::Callback BudgetReadStream::WithinBudget(Callback callback) {
  return Base::MakeCallback([self = Base::Shared(this), callback = std::move(callback)](
                                Base::Status const& status, Base::ByteBuffer data, bool complete) {
    if (self->_budget.SpendStep()) {
      callback->Call(status, std::move(data), complete);
    } else {
      Base::GetIOThread()->PostToNextRound(Base::MakeCallback(
          [callback, status, data, complete] { callback->Call(status, data, complete); }));
    }
  });
}
