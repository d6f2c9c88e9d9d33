#include "daemon/turn_read_stream.h"

#include <utility>

#include "base/io_thread.h"
#include "base/stream.h"

namespace {

// The header and the payload of a packet, and some pieces if it comes in pieces.
constexpr unsigned readsInATurn = 8;

}  // namespace

TurnReadStream::TurnReadStream(Base::Shared<IO::FileReadStream> source)
    : _source(std::move(source)), _turn(Base::GetIOThread(), readsInATurn) {}

void TurnReadStream::Read(Callback callback) { _source->Read(TakeTurn(std::move(callback))); }

void TurnReadStream::ReadInto(Base::Buffer<unsigned char> buffer, Callback callback) {
  _source->ReadInto(std::move(buffer), TakeTurn(std::move(callback)));
}

void TurnReadStream::Close() { _source->Close(); }

TurnReadStream::Callback TurnReadStream::TakeTurn(Callback callback) {
  return Base::MakeCallback([self = Base::Shared(this), callback = std::move(callback)](
                                Base::Status const& status, Base::ByteBuffer data, bool complete) {
    self->_turn.Take(Base::MakeCallback(
        [callback, status, data, complete] { callback->Call(status, data, complete); }));
  });
}
