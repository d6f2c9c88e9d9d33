#include "net/socket_calls.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("socket_linux");

namespace Net {

Base::UniqueFd OpenSocket(int domain, int type, int protocol) {
  Base::UniqueFd fd(socket(domain, type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol));
  if (!fd) {
    int const error = errno;
    TRACE_ERROR("Failed to create socket", domain, type, protocol, error);
    throw Base::ExceptionPosix(error);
  }
  return fd;
}

int MakeNonBlocking(Base::UniqueFd const& fd) {
  int const flags = fcntl(fd.Get(), F_GETFL);
  if (flags == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to read attached socket access mode", Trace::As("fd", fd.Get()), error);
    throw Base::ExceptionPosix(error);
  }
  if (fcntl(fd.Get(), F_SETFL, flags | O_NONBLOCK) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to set attached socket non blocking", Trace::As("fd", fd.Get()), error);
    throw Base::ExceptionPosix(error);
  }
  return flags;
}

Sent Send(Base::UniqueFd const& fd, Base::ByteBuffer const& data) {
  ssize_t const length = send(fd.Get(), data.GetData(), data.GetLength(), 0);
  return {length, errno};
}

int GetReceiveFlags(Base::UniqueFd const& fd) {
  int type = SOCK_STREAM;
  socklen_t length = sizeof type;
  getsockopt(fd.Get(), SOL_SOCKET, SO_TYPE, &type, &length);
  return type == SOCK_STREAM ? 0 : MSG_TRUNC;
}

Received Receive(Base::UniqueFd const& fd, Base::ByteBuffer const& data, int flags) {
  auto const size = static_cast<ssize_t>(data.GetLength());
  ssize_t const length = recv(fd.Get(), data.GetData(), data.GetLength(), flags);
  return {std::min(length, size), errno, length > size};
}

Accepted Accept(Base::UniqueFd const& listener) {
  std::array<unsigned char, 16> record{};
  socklen_t length = record.size();
  Base::UniqueFd fd(
      accept4(listener.Get(), reinterpret_cast<sockaddr*>(record.data()), &length, SOCK_CLOEXEC));
  int const error = errno;
  if (!fd) return {{}, error, {}};
  // The kernel reports the length of the whole address, also when the record holds part of it.
  return {std::move(fd), error,
          Address(record.data(), std::min<std::size_t>(length, record.size()))};
}

}  // namespace Net
