#include "net/socket_linux.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <limits>
#include <utility>

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("socket_linux");

namespace Net {

namespace {

constexpr std::uint32_t noWatch = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t readEvents = EPOLLIN | EPOLLPRI;
constexpr long resourceRestNs = 100'000'000;  // how often it looks whether there are some again
constexpr time_t otherRestSeconds = 1;

bool Has(int events, std::uint32_t bit) { return (static_cast<std::uint32_t>(events) & bit) != 0; }

bool IsOutOfResources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// The fate of one connection, which is then out of the backlog; any other failure would be reported
// again at once, and so on without end.
bool ConcernsOneConnection(int error) { return error == ECONNABORTED || error == EINTR; }

// Whether this process and the system have a descriptor to spare.
bool HasFreeDescriptor() { return static_cast<bool>(Base::UniqueFd(eventfd(0, EFD_CLOEXEC))); }

}  // namespace

SocketLinux::SocketLinux(int domain, int type, int protocol,
                         Base::Shared<Base::ThreadLinux> ioThread)
    : _fd(socket(domain, type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol)),
      _ioThread(std::move(ioThread)),
      _watchEvents(noWatch) {
  if (!_fd) {
    int const error = errno;
    TRACE_ERROR("Failed to create socket", domain, type, protocol, error);
    throw Base::ExceptionPosix(error);
  }
  TRACE_VERBOSE("Created socket", this, domain, type, protocol, Trace::As("fd", _fd.Get()));
}

SocketLinux::SocketLinux(Base::UniqueFd fd, Base::Shared<Base::ThreadLinux> ioThread)
    : _fd(std::move(fd)), _ioThread(std::move(ioThread)), _watchEvents(noWatch) {
  if (!_fd) {
    TRACE_ERROR("Invalid socket", Trace::As("fd", _fd.Get()));
    throw Base::Exception("Invalid socket");
  }
  int const flags = fcntl(_fd.Get(), F_GETFL);
  if (flags == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to read attached socket access mode", Trace::As("fd", _fd.Get()), error);
    throw Base::ExceptionPosix(error);
  }
  if (fcntl(_fd.Get(), F_SETFL, flags | O_NONBLOCK) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to set attached socket non blocking", Trace::As("fd", _fd.Get()), error);
    throw Base::ExceptionPosix(error);
  }
  TRACE_VERBOSE("Attached socket", this, Trace::As("fd", _fd.Get()), flags);
}

template <typename... Fields>
void SocketLinux::ThrowLatchedError(std::string_view message, Fields const&... fields) {
  if (!_error) return;
  if (Trace::IsTraceEnabled(Trace::levelError)) {
    Trace::WriteLine(*traceModule, Trace::levelError, message, Trace::As("this", this), fields...,
                     Trace::As("_error", _error));
  }
  throw Base::Exception(_error.Get().what());
}

template <typename Callback, typename... Results>
void SocketLinux::Post(Callback callback, Results... results) {
  _ioThread->PostTask(Base::MakeCallback(
      [self = Base::Shared(this), callback = std::move(callback),
       ... results = std::move(results)]() mutable { callback->Call(std::move(results)...); }));
}

void SocketLinux::Bind(Address const& address) {
  ThrowLatchedError("Attempt to bind after error", Trace::As("address", address));
  if (bind(_fd.Get(), address.GetData(), address.GetLength()) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to bind to address", this, address, error);
    throw Base::ExceptionPosix(error);
  }
  TRACE_VERBOSE("Socket bound to address", this, address);
}

void SocketLinux::SetOption(int level, int option, void const* value, socklen_t valueLength) {
  ThrowLatchedError("Attempt to set option after error", Trace::As("option", option));
  if (setsockopt(_fd.Get(), level, option, value, valueLength) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to set socket option", this, level, option, valueLength, error);
    throw Base::ExceptionPosix(error);
  }
  TRACE_VERBOSE("Socket option set", this, level, option, valueLength);
}

PeerCredentials SocketLinux::GetPeerCredentials() {
  // The text is that of SetOption: kept as it is.
  ThrowLatchedError("Attempt to set option after error");
  PeerCredentials credentials;
  socklen_t length = sizeof credentials;
  if (getsockopt(_fd.Get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to determine socket credentials", this, error);
    throw Base::ExceptionPosix(error);
  }
  return credentials;
}

void SocketLinux::Listen(int maxConnections, AcceptCallback acceptCallback) {
  ThrowLatchedError("Attempt to listen after error", Trace::As("maxConnections", maxConnections));
  _acceptCallback = std::move(acceptCallback);
  if (listen(_fd.Get(), maxConnections) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to listen", this, maxConnections);
    PostAcceptError(Base::ErrnoText(error));
    // And on as if it had succeeded: kept as it is.
  }
  MakeRestTimer();
  Arm(EPOLLIN);
  TRACE_VERBOSE("Socket listening", maxConnections);
}

void SocketLinux::Connect(Address const& address, Base::StatusCallback callback) {
  ThrowLatchedError("Attempt to connect after error", Trace::As("address", address));
  if (_connectCallback) {
    TRACE_ERROR("Attempt to connect to connecting socket", this, address);
    throw Base::Exception("Socket already connecting");
  }
  int const result = connect(_fd.Get(), address.GetData(), address.GetLength());
  int const error = errno;
  // errno decides, even after a connect() that returned 0: kept as it is.
  if (error == EINPROGRESS) {
    TRACE_DEBUG("Connect will complete async", this, address);
    Arm(EPOLLOUT);
    _connectCallback = std::move(callback);
  } else if (result == 0) {
    TRACE_DEBUG("Connect succeeded immediately", this, address);
    Post(std::move(callback), Base::Status());
  } else {
    TRACE_ERROR("Failed to connect socket", this, address, error);
    Post(std::move(callback), Base::Status(Base::Exception(Base::ErrnoText(error))));
  }
}

void SocketLinux::Disconnect(Base::StatusCallback callback) {
  Base::Status status;
  try {
    Close();
  } catch (Base::Exception const&) {
    status = _error;
  }
  Post(std::move(callback), std::move(status));
}

void SocketLinux::Write(Buffer data, WriteCallback callback) {
  ThrowLatchedError("Attempt to write after error", Trace::As("data", data));
  if (_writeCallback) {
    TRACE_ERROR("Attempt to write to already writing socket", this, data);
    throw Base::Exception("Socket already writing");
  }
  if (!callback) {
    TRACE_ERROR("Attempt to write with invalid callback", this);
    throw Base::Exception("Invalid Callback");
  }
  ssize_t const bytesWritten = send(_fd.Get(), data.GetData(), data.GetLength(), 0);
  int const error = errno;
  if (bytesWritten >= 0) {
    TRACE_VERBOSE("Write succeeded", this, data, bytesWritten);
    Post(std::move(callback), _error, data.Slice(0, static_cast<std::size_t>(bytesWritten)));
  } else if (error == EAGAIN) {
    TRACE_DEBUG("Write will complete async", this, data, error);
    Arm(EPOLLOUT);
    _writeCallback = std::move(callback);
    _writeBuffer = std::move(data);
  } else {
    TRACE_ERROR("Failed to write", this, data, error);
    Post(std::move(callback), Base::Status(Base::Exception(Base::ErrnoText(error))), Buffer());
    CloseQuietly();
  }
}

void SocketLinux::Read(Buffer data, ReadCallback callback) {
  ThrowLatchedError("Attempt to read after error", Trace::As("data", data));
  if (_readCallback) {
    TRACE_ERROR("Attempt to read to already reading socket", this, data);
    throw Base::Exception("Socket already reading");
  }
  if (!callback) {
    TRACE_ERROR("Attempt to read with invalid callback", this);
    throw Base::Exception("Invalid Callback");
  }
  auto const [ret, error] = Receive(data);
  if (ret >= 0) {
    TRACE_VERBOSE("Read succeeded", this, data, Trace::As("bytesRead", ret));
    Post(std::move(callback), Base::Status(), data.Slice(0, static_cast<std::size_t>(ret)),
         ret == 0);
  } else if (error == EAGAIN) {
    TRACE_DEBUG("Read will complete async", this, data, Trace::As("ptr", data.GetData()),
                Trace::As("ret", ret), Trace::As("error", error));
    Arm(EPOLLIN);
    _readCallback = std::move(callback);
    _readBuffer = std::move(data);
  } else {
    TRACE_ERROR("Failed to read", this, data, Trace::As("error", error), Trace::As("ret", ret));
    Post(std::move(callback), Base::Status(Base::Exception(Base::ErrnoText(error))), Buffer(),
         true);
    Close();
  }
}

SocketLinux::Received SocketLinux::Receive(Buffer const& data) {
  // recvmsg, because it tells of a record that was cut. Without a control buffer descriptors that a
  // peer sends along are closed by the kernel.
  iovec part{data.GetData(), data.GetLength()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  ssize_t const bytesRead = recvmsg(_fd.Get(), &message, 0);
  int const error = errno;
  if (bytesRead >= 0 && (message.msg_flags & MSG_TRUNC) != 0) {
    TRACE_WARNING("Record was truncated", this, bytesRead);
  }
  return {bytesRead, error};
}

void SocketLinux::Arm(std::uint32_t event) {
  if (_watchEvents == noWatch) {
    _ioThread->AddWatch(_fd.Get(), event,
                        Base::MakeCallback([hold = Base::WatchHold(*this)](int /*fd*/, int events) {
                          hold.GetOwner().OnEvents(events);
                        }));
    _watchEvents = event;
  } else if ((_watchEvents & event) == 0) {
    _ioThread->UpdateWatch(_fd.Get(), _watchEvents | event);
    _watchEvents |= event;
  }
}

void SocketLinux::Disarm(std::uint32_t events) {
  std::uint32_t const keptEvents = _watchEvents & ~events;
  _ioThread->UpdateWatch(_fd.Get(), keptEvents);
  _watchEvents = keptEvents;
}

void SocketLinux::OnEvents(int events) {
  TRACE_DEBUG("Socket watch events", this, events);
  // The event was found before the socket closed.
  if (!_fd) return;
  if (Has(events, EPOLLOUT) && _connectCallback) OnConnected();
  if (Has(events, EPOLLIN) && _acceptCallback) OnAcceptable();
  if (Has(events, EPOLLIN | EPOLLHUP) && _readCallback) OnReadable(events);
  if (Has(events, EPOLLOUT) && _writeCallback) OnWritable(events);
  if (Has(events, EPOLLERR) || (Has(events, EPOLLHUP) && !Has(events, EPOLLIN))) {
    OnHangUpOrError(events);
  }
}

void SocketLinux::OnConnected() {
  TRACE_VERBOSE("Async connect completed");
  Disarm(EPOLLOUT);
  Post(std::exchange(_connectCallback, {}), Base::Status());
}

void SocketLinux::OnAcceptable() {
  std::array<unsigned char, 16> record{};
  socklen_t length = record.size();
  Base::UniqueFd fd(
      accept4(_fd.Get(), reinterpret_cast<sockaddr*>(record.data()), &length, SOCK_CLOEXEC));
  int const error = errno;
  if (fd) {
    // The length is that of the whole address, however much of it the record could take.
    OnAccepted(std::move(fd), Address(record.data(), std::min<std::size_t>(length, record.size())));
    return;
  }
  if (error == EAGAIN) {
    TRACE_VERBOSE("Socket accept returned EAGAIN or EWOULDBLOCK", this, error);
    return;
  }
  TRACE_ERROR("Socket accept failed", this, error);
  PostAcceptError(Base::ErrnoText(error));
  if (!ConcernsOneConnection(error)) RestFromAccepting(error);
}

void SocketLinux::PostAcceptError(std::string text) {
  Post(_acceptCallback, Base::Status(Base::Exception(std::move(text))), Address(),
       Base::Shared<SocketLinux>());
}

void SocketLinux::OnAccepted(Base::UniqueFd fd, Address const& address) {
  try {
    Post(_acceptCallback, _error, address, Base::MakeShared<SocketLinux>(std::move(fd), _ioThread));
  } catch (std::exception const& err) {
    PostAcceptError(err.what());
  }
}

// A descriptor, and not a scheduled task: one that becomes due while the loop is busy would not end
// the loop's next wait.
void SocketLinux::MakeRestTimer() {
  _restTimer.Reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  if (!_restTimer) {
    int const error = errno;
    TRACE_ERROR("Failed to create rest timer", this, error);
    throw Base::ExceptionPosix(error);
  }
  _ioThread->AddWatch(_restTimer.Get(), EPOLLIN,
                      Base::MakeCallback([self = Base::Shared(this)](int /*fd*/, int /*events*/) {
                        self->OnRested();
                      }));
}

void SocketLinux::RestFromAccepting(int error) {
  _isOutOfResources = IsOutOfResources(error);
  Disarm(EPOLLIN);
  itimerspec rest{};
  if (_isOutOfResources) {
    rest.it_value.tv_nsec = resourceRestNs;
    rest.it_interval = rest.it_value;  // until there are some
  } else {
    rest.it_value.tv_sec = otherRestSeconds;
  }
  timerfd_settime(_restTimer.Get(), 0, &rest, nullptr);
}

void SocketLinux::OnRested() {
  std::uint64_t expirations = 0;
  if (!_restTimer || read(_restTimer.Get(), &expirations, sizeof expirations) == -1) return;
  if (_isOutOfResources && !HasFreeDescriptor()) return;
  itimerspec const off{};
  timerfd_settime(_restTimer.Get(), 0, &off, nullptr);
  Arm(EPOLLIN);
}

void SocketLinux::OnReadable(int events) {
  Disarm(readEvents);
  auto const [bytesRead, error] = Receive(_readBuffer);
  if (bytesRead == -1 && error == EAGAIN) {
    // Readiness is a hint; the operation still waits.
    Arm(EPOLLIN);
    return;
  }
  // Out of their fields first: what follows may start the next read.
  ReadCallback callback = std::exchange(_readCallback, {});
  Buffer const data = std::exchange(_readBuffer, {});
  if (bytesRead >= 0) {
    TRACE_DEBUG("Async socket read succeeded", this, events, Trace::As("bytesRead", bytesRead));
    Post(std::move(callback), _error, data.Slice(0, static_cast<std::size_t>(bytesRead)),
         Has(events, EPOLLHUP));
    return;
  }
  TRACE_ERROR("Async socket read attempt failed", this, events, Trace::As("error", error));
  Post(std::move(callback), Base::Status(Base::Exception(Base::ErrnoText(error))), data, true);
  CloseQuietly();
}

void SocketLinux::OnWritable(int events) {
  Disarm(EPOLLOUT);
  ssize_t const bytesWritten = send(_fd.Get(), _writeBuffer.GetData(), _writeBuffer.GetLength(), 0);
  int const error = errno;
  if (bytesWritten == -1 && error == EAGAIN) {
    Arm(EPOLLOUT);
    return;
  }
  WriteCallback callback = std::exchange(_writeCallback, {});
  Buffer const data = std::exchange(_writeBuffer, {});
  if (bytesWritten >= 0) {
    TRACE_DEBUG("Async socket write succeeded", this, events, bytesWritten);
    Post(std::move(callback), _error, data.Slice(0, static_cast<std::size_t>(bytesWritten)));
    return;
  }
  TRACE_ERROR("Async socket write failed", this, events, error);
  Post(std::move(callback), Base::Status(Base::Exception(Base::ErrnoText(error))), data);
  CloseQuietly();
}

void SocketLinux::OnHangUpOrError(int events) {
  try {
    CloseDescriptor();
  } catch (Base::Exception const&) {
    // Already logged; what is latched next is what the pending operations are told.
  }
  if (Has(events, EPOLLHUP)) {
    TRACE_VERBOSE("Async socket hang up", this, events);
    _error = Base::Exception("Socket hung up");
    EndPendingOperations();
    return;
  }
  // Asked of the closed descriptor, and with the outcomes the other way round than they read: kept
  // as it is. What pending operations are told is that there was an error.
  int value = 0;
  socklen_t length = sizeof value;
  if (getsockopt(_fd.Get(), SOL_SOCKET, SO_ERROR, &value, &length) == 0) {
    int const error = errno;
    TRACE_ERROR("Async socket failed unknown error", this, events, error);
    _error = Base::Exception("Socket unknown error");
  } else {
    TRACE_ERROR("Async socket failed with error", this, events, Trace::As("error", value));
    _error = Base::Exception(Base::ErrnoText(value));
  }
  EndPendingOperations();
}

void SocketLinux::OnWatchDropped() noexcept {
  if (_watchEvents == noWatch) return;  // by `Close`, which has reported what was pending
  _watchEvents = noWatch;
  // Out of their fields first: what goes with them may come back to this socket.
  auto const connect = std::exchange(_connectCallback, {});
  auto const accept = std::exchange(_acceptCallback, {});
  auto const write = std::exchange(_writeCallback, {});
  auto const read = std::exchange(_readCallback, {});
}

void SocketLinux::Close() {
  try {
    CloseDescriptor();
  } catch (Base::Exception const&) {
    EndPendingOperations();
    throw;
  }
  EndPendingOperations();
}

void SocketLinux::CloseQuietly() {
  try {
    Close();
  } catch (Base::Exception const&) {
    // Already logged; the operation that failed has reported why.
  }
}

void SocketLinux::CloseDescriptor() {
  if (!_fd) return;
  TRACE_VERBOSE("Closing socket...", this, Trace::As("fd", _fd.Get()));
  Base::UniqueFd fd = std::move(_fd);  // closed whatever happens
  _error = Base::Exception("Socket closed");
  if (Base::UniqueFd const timer = std::move(_restTimer)) _ioThread->RemoveWatch(timer.Get());
  if (std::exchange(_watchEvents, noWatch) != noWatch) _ioThread->RemoveWatch(fd.Get());
  if (close(fd.Release()) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to close socket.", this, error);
    throw Base::Exception(_error.Get().what());
  }
  TRACE_VERBOSE("Close socket succeeded.", this);
}

void SocketLinux::EndPendingOperations() {
  _acceptCallback.Reset();
  if (_connectCallback) Post(std::exchange(_connectCallback, {}), _error);
  if (_writeCallback) {
    Post(std::exchange(_writeCallback, {}), _error, std::exchange(_writeBuffer, {}));
  }
  if (_readCallback) {
    Post(std::exchange(_readCallback, {}), _error, std::exchange(_readBuffer, {}), true);
  }
}

}  // namespace Net
