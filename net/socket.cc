#include "net/socket.h"

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

SocketWriteStream::SocketWriteStream(Base::Shared<Socket> socket)
    : WholeWriteStream(traceModule), _socket(std::move(socket)) {
  TRACE_VERBOSE("Created write stream", this);
}

void SocketWriteStream::WriteOnce(Base::Buffer<unsigned char> data, Callback callback) {
  if (!_socket) throw Base::Exception("Write Stream Closed");
  _socket->Write(std::move(data), std::move(callback));
}

void SocketWriteStream::Close() {
  if (!_socket) return;
  TRACE_VERBOSE("Closing write stream", this);
  _socket.Reset();
}

}  // namespace Net
