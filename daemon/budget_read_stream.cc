#include "daemon/budget_read_stream.h"

#include <utility>

#include "base/loop/io_thread.h"
#include "base/stream.h"

namespace {

// Enough for the header and the payload of a packet, and for a payload in a few pieces.
constexpr unsigned readsPerRound = 8;

}  // namespace

BudgetReadStream::BudgetReadStream(Base::Shared<Net::Socket> socket, std::size_t bufferSize)
    : SocketReadStream(std::move(socket), bufferSize),
      _budget(Base::GetIOThread(), readsPerRound) {}

void BudgetReadStream::ReadOnce(Base::ByteBuffer buffer, Callback callback) {
  auto withinBudget = [self = Base::Shared(this), callback = std::move(callback)](
                          Base::Status const& status, Base::ByteBuffer data, bool complete) {
    if (self->_budget.SpendStep()) {
      callback->Call(status, std::move(data), complete);
    } else {
      Base::GetIOThread()->PostToNextRound(Base::MakeCallback(
          [callback, status, data, complete] { callback->Call(status, data, complete); }));
    }
  };
  SocketReadStream::ReadOnce(std::move(buffer), Base::MakeCallback(std::move(withinBudget)));
}
