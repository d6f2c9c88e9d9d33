#include "net/socket.h"

#include <exception>
#include <utility>

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("socket");

namespace Net {

SocketReadStream::SocketReadStream(Base::Shared<Socket> socket, std::size_t bufferSize)
    : _socket(std::move(socket)), _bufferSize(bufferSize) {
  TRACE_VERBOSE("Created read stream", this, bufferSize);
}

void SocketReadStream::Read(Callback callback) {
  GetOpenSocket().Read(
      _bufferSize == 0 ? Base::ByteBuffer() : Base::ByteBuffer::Zeroed(_bufferSize),
      std::move(callback));
}

void SocketReadStream::ReadInto(Base::Buffer<unsigned char> buffer, Callback callback) {
  GetOpenSocket().Read(std::move(buffer), std::move(callback));
}

void SocketReadStream::Close() {
  if (!_socket) return;
  TRACE_VERBOSE("Closing read stream", this);
  _socket.Reset();
}

Socket& SocketReadStream::GetOpenSocket() const {
  if (!_socket) {
    TRACE_ERROR("Attempt to read from closed stream", this);
    throw Base::Exception("Read Stream Closed");
  }
  return *_socket;
}

SocketWriteStream::SocketWriteStream(Base::Shared<Socket> socket) : _socket(std::move(socket)) {
  TRACE_VERBOSE("Created write stream", this);
}

void SocketWriteStream::Write(Buffer data, Callback callback) { Send(0, data, callback); }

void SocketWriteStream::Send(std::size_t offset, Buffer const& total, Callback const& callback) {
  if (!_socket) throw Base::Exception("Write Stream Closed");
  // The completion holds the stream: its user may let go while bytes are still under way.
  auto onWritten = Base::MakeCallback([self = Base::Shared(this), offset, total, callback](
                                          Base::Status const& status, Buffer written) {
    self->OnWritten(status, written, offset, total, callback);
  });
  _socket->Write(total.Slice(offset, total.GetLength() - offset), std::move(onWritten));
}

void SocketWriteStream::OnWritten(Base::Status const& status, Buffer const& written,
                                  std::size_t offset, Buffer const& total,
                                  Callback const& callback) {
  if (status) {
    // Not an ERROR: the socket has already logged the failure as one.
    TRACE_VERBOSE("Error on write", this, written, total, offset);
    callback->Call(status, total);
    return;
  }
  std::size_t const newOffset = offset + written.GetLength();
  if (newOffset == total.GetLength()) {
    TRACE_VERBOSE("Write complete", this, written, total);
    callback->Call(status, total);
    return;
  }
  std::size_t const remaining = total.GetLength() - newOffset;
  TRACE_VERBOSE("Write partially completed", this, written, total, offset, newOffset, remaining);
  try {
    Send(newOffset, total, callback);
  } catch (std::exception const& err) {
    // No caller is left on the stack to catch it; one still waits for its callback.
    callback->Call(Base::Exception(err.what()), total);
  }
}

void SocketWriteStream::Close() {
  if (!_socket) return;
  TRACE_VERBOSE("Closing write stream", this);
  _socket.Reset();
}

}  // namespace Net
