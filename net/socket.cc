#include "net/socket.h"

#include <utility>

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("socket");

namespace Net {

SocketReadStream::SocketReadStream(Base::Shared<Socket> socket, std::size_t bufferSize)
    : SingleReadStream(traceModule, bufferSize), _socket(std::move(socket)) {}

void SocketReadStream::ReadOnce(Base::ByteBuffer buffer, Callback callback) {
  _socket->Read(std::move(buffer), std::move(callback));
}

void SocketReadStream::CloseSource() { _socket.Reset(); }

SocketWriteStream::SocketWriteStream(Base::Shared<Socket> socket)
    : WholeWriteStream(traceModule), _socket(std::move(socket)) {
  TRACE_VERBOSE("Created write stream", this);
}

void SocketWriteStream::WriteOnce(Base::ByteBuffer data, Callback callback) {
  if (!_socket) throw Base::Exception("Write Stream Closed");
  _socket->Write(std::move(data), std::move(callback));
}

void SocketWriteStream::Close() {
  if (!_socket) return;
  TRACE_VERBOSE("Closing write stream", this);
  _socket.Reset();
}

}  // namespace Net
