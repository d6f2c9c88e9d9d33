#include "io/single_read_stream.h"

#include <utility>

#include "base/exception.h"

namespace IO {

SingleReadStream::SingleReadStream(Base::Shared<Trace::Log> log, std::size_t bufferSize)
    : _log(std::move(log)), _bufferSize(bufferSize) {
  auto const& traceModule = _log;
  TRACE_VERBOSE("Created read stream", this, bufferSize);
}

void SingleReadStream::Read(Callback callback) {
  ThrowIfClosed();
  ReadOnce(_bufferSize == 0 ? Base::ByteBuffer() : Base::ByteBuffer::Zeroed(_bufferSize),
           std::move(callback));
}

void SingleReadStream::ReadInto(Base::ByteBuffer buffer, Callback callback) {
  ThrowIfClosed();
  ReadOnce(std::move(buffer), std::move(callback));
}

void SingleReadStream::Close() {
  if (std::exchange(_isClosed, true)) return;
  auto const& traceModule = _log;
  TRACE_VERBOSE("Closing read stream", this);
  CloseSource();
}

void SingleReadStream::ThrowIfClosed() const {
  if (!_isClosed) return;
  auto const& traceModule = _log;
  TRACE_ERROR("Attempt to read from closed stream", this);
  throw Base::Exception("Read Stream Closed");
}

}  // namespace IO
