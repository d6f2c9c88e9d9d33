#include "net/socket_linux.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <limits>
#include <utility>

#include "base/exception.h"
#include "net/accept_backoff.h"
#include "net/socket_calls.h"
#include "trace/trace.h"

TRACE_MODULE("socket_linux");

// A socket tries each connect, read and write at once. An operation that would block becomes
// pending: the socket keeps its callback and buffer, and arms the watch for its event.
//
// The watch has three states: there is none (`noWatch`) until the first operation has to wait; it
// is armed with the events of what is pending; or it has no events left. The last state is not the
// first: epoll(7) reports a hang-up and an error even to a watch without events, so an idle socket
// learns that its peer is gone, and closes.
//
// `_error` latches what ended the socket. `Close` latches "Socket closed", and a read or write that
// fails closes the socket after it has reported its errno. A hang-up or an error event closes the
// descriptor first and then latches its own text, which the pending operations report. A failed
// bind or connect latches nothing: the caller may try again.
//
// One event may carry several bits. `OnEvents` completes
//   1. the connect, which everything else needs;
//   2. one accept: the level-triggered watch reports the next connection in the loop's next round;
//   3. the read, because bytes that came before a hang-up are still to be delivered;
//   4. the write;
//   5. an error, or a hang-up without EPOLLIN: nothing is left to read, and all else ends.
// Completions are posted, so no callback changes the socket between two steps. A step may close
// the socket: the later ones then find nothing pending.

namespace Net {

namespace {

constexpr std::uint32_t noWatch = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t readEvents = EPOLLIN | EPOLLPRI;

bool Has(int events, std::uint32_t bit) { return (static_cast<std::uint32_t>(events) & bit) != 0; }

Base::Status StatusOf(int error) { return Base::Exception(Base::ErrnoText(error)); }

}  // namespace

SocketLinux::SocketLinux(int domain, int type, int protocol,
                         Base::Shared<Base::ThreadLinux> ioThread)
    : _fd(OpenSocket(domain, type, protocol)),
      _receiveFlags(GetReceiveFlags(_fd)),
      _ioThread(std::move(ioThread)),
      _watchEvents(noWatch) {
  TRACE_VERBOSE("Created socket", this, domain, type, protocol, Trace::As("fd", _fd.Get()));
}

SocketLinux::SocketLinux(Base::UniqueFd fd, Base::Shared<Base::ThreadLinux> ioThread)
    : _fd(std::move(fd)),
      _receiveFlags(GetReceiveFlags(_fd)),
      _ioThread(std::move(ioThread)),
      _watchEvents(noWatch) {
  if (!_fd) {
    TRACE_ERROR("Invalid socket", Trace::As("fd", _fd.Get()));
    throw Base::Exception("Invalid socket");
  }
  int const flags = MakeNonBlocking(_fd);
  TRACE_VERBOSE("Attached socket", this, Trace::As("fd", _fd.Get()), flags);
}

SocketLinux::~SocketLinux() = default;

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
Base::Task SocketLinux::BindCompletion(Callback callback, Results... results) {
  return Base::MakeCallback(
      [self = Base::Shared(this), callback = std::move(callback),
       ... results = std::move(results)]() mutable { callback->Call(std::move(results)...); });
}

template <typename Callback, typename... Results>
void SocketLinux::Post(Callback callback, Results... results) {
  _ioThread->PostTask(BindCompletion(std::move(callback), std::move(results)...));
}

void SocketLinux::PostRead(ReadCallback callback, Base::Status status, Buffer data, bool complete) {
  Base::Task task =
      BindCompletion(std::move(callback), std::move(status), std::move(data), complete);
  if (_readBudget) {
    _readBudget->Post(std::move(task));
  } else {
    _ioThread->PostTask(std::move(task));
  }
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
  // Deliberate: the ERROR line is that of SetOption.
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
  if (!acceptCallback) {
    TRACE_ERROR("Attempt to listen with invalid callback", this);
    throw Base::Exception("Invalid Callback");
  }
  if (!_acceptBackoff) {
    // Before the listen, which lets clients in: it may fail.
    auto const backoff = Base::MakeShared<AcceptBackoff>(_ioThread, _reservedDescriptors);
    backoff->Watch(Base::MakeCallback([self = Base::Shared(this)] { self->Arm(EPOLLIN); }));
    _acceptBackoff = backoff;  // when it is watched: else the next `Listen` tries again
  }
  _acceptCallback = std::move(acceptCallback);
  if (listen(_fd.Get(), maxConnections) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to listen", this, maxConnections);
    PostAcceptError(Base::ErrnoText(error));
    // Deliberate: the socket goes on as if it listened, and logs that it does.
  }
  Arm(EPOLLIN);
  TRACE_VERBOSE("Socket listening", maxConnections);
}

void SocketLinux::Connect(Address const& address, Base::StatusCallback callback) {
  ThrowLatchedError("Attempt to connect after error", Trace::As("address", address));
  if (_connectCallback) {
    TRACE_ERROR("Attempt to connect to connecting socket", this, address);
    throw Base::Exception("Socket already connecting");
  }
  if (!callback) {
    TRACE_ERROR("Attempt to connect with invalid callback", this);
    throw Base::Exception("Invalid Callback");
  }
  int const result = connect(_fd.Get(), address.GetData(), address.GetLength());
  int const error = errno;
  // Deliberate: errno decides, so a connect() that returned 0 counts as pending when errno held
  // EINPROGRESS.
  if (error == EINPROGRESS) {
    TRACE_DEBUG("Connect will complete async", this, address);
    Arm(EPOLLOUT);
    _connectCallback = std::move(callback);
  } else if (result == 0) {
    TRACE_DEBUG("Connect succeeded immediately", this, address);
    Post(std::move(callback), Base::Status());
  } else {
    TRACE_ERROR("Failed to connect socket", this, address, error);
    Post(std::move(callback), StatusOf(error));
  }
}

void SocketLinux::Disconnect(Base::StatusCallback callback) {
  Base::Status status;
  try {
    Close();
  } catch (Base::Exception const&) {
    status = _error;
  }
  if (callback) Post(std::move(callback), std::move(status));
}

void SocketLinux::Write(Buffer data, WriteCallback callback) {
  ThrowLatchedError("Attempt to write after error", Trace::As("data", data));
  if (_write) {
    TRACE_ERROR("Attempt to write to already writing socket", this, data);
    throw Base::Exception("Socket already writing");
  }
  if (!callback) {
    TRACE_ERROR("Attempt to write with invalid callback", this);
    throw Base::Exception("Invalid Callback");
  }
  auto const [bytesWritten, error] = Send(_fd, data);
  if (bytesWritten >= 0) {
    TRACE_VERBOSE("Write succeeded", this, data, bytesWritten);
    _bytesSent += static_cast<std::uint64_t>(bytesWritten);
    Post(std::move(callback), _error,
         std::move(data).Slice(0, static_cast<std::size_t>(bytesWritten)));
  } else if (error == EAGAIN) {
    TRACE_DEBUG("Write will complete async", this, data, error);
    Arm(EPOLLOUT);
    _write = {std::move(callback), std::move(data)};
  } else {
    TRACE_ERROR("Failed to write", this, data, error);
    Post(std::move(callback), StatusOf(error), Buffer());
    CloseQuietly();
  }
}

void SocketLinux::Read(Buffer data, ReadCallback callback) {
  ThrowLatchedError("Attempt to read after error", Trace::As("data", data));
  if (_read) {
    TRACE_ERROR("Attempt to read to already reading socket", this, data);
    throw Base::Exception("Socket already reading");
  }
  if (!callback) {
    TRACE_ERROR("Attempt to read with invalid callback", this);
    throw Base::Exception("Invalid Callback");
  }
  auto const [ret, error, isTruncated] = Receive(data);
  if (ret >= 0) {
    TRACE_VERBOSE("Read succeeded", this, data, Trace::As("bytesRead", ret));
    PostRead(std::move(callback), {}, std::move(data).Slice(0, static_cast<std::size_t>(ret)),
             ret == 0);
  } else if (error == EAGAIN) {
    TRACE_DEBUG("Read will complete async", this, data, Trace::As("ptr", data.GetData()),
                Trace::As("ret", ret), Trace::As("error", error));
    Arm(EPOLLIN);
    _read = {std::move(callback), std::move(data)};
  } else {
    TRACE_ERROR("Failed to read", this, data, Trace::As("error", error), Trace::As("ret", ret));
    PostRead(std::move(callback), StatusOf(error), {}, true);
    Close();
  }
}

Received SocketLinux::Receive(Buffer const& data) {
  Received const received = Net::Receive(_fd, data, _receiveFlags);
  if (received.isTruncated) {
    TRACE_WARNING("Record was truncated", this, Trace::As("bytesRead", received.length));
  }
  return received;
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
  if (Has(events, EPOLLIN | EPOLLHUP) && _read) OnReadable(events);
  if (Has(events, EPOLLOUT) && _write) OnWritable(events);
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
  if (!_acceptBackoff->MayAccept()) {
    Disarm(EPOLLIN);
    return;
  }
  auto [fd, error, address] = Accept(_fd);
  if (fd) {
    _acceptBackoff->OnAccepted(fd.Get());
    OnAccepted(std::move(fd), address);
    return;
  }
  if (error == EAGAIN) {
    TRACE_VERBOSE("Socket accept returned EAGAIN or EWOULDBLOCK", this, error);
    return;
  }
  TRACE_ERROR("Socket accept failed", this, error);
  PostAcceptError(Base::ErrnoText(error));
  if (!AcceptBackoff::IsNeededAfter(error)) return;
  Disarm(EPOLLIN);
  _acceptBackoff->Start(error);
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

void SocketLinux::OnReadable(int events) {
  Disarm(readEvents);
  auto const [bytesRead, error, isTruncated] = Receive(_read.buffer);
  if (bytesRead == -1 && error == EAGAIN) {
    // Readiness was a hint only; the operation still waits.
    Arm(EPOLLIN);
    return;
  }
  auto [callback, data] = _read.Take();
  if (bytesRead >= 0) {
    TRACE_DEBUG("Async socket read succeeded", this, events, Trace::As("bytesRead", bytesRead));
    PostRead(std::move(callback), _error,
             std::move(data).Slice(0, static_cast<std::size_t>(bytesRead)), Has(events, EPOLLHUP));
    return;
  }
  TRACE_ERROR("Async socket read attempt failed", this, events, Trace::As("error", error));
  PostRead(std::move(callback), StatusOf(error), std::move(data), true);
  CloseQuietly();
}

void SocketLinux::OnWritable(int events) {
  Disarm(EPOLLOUT);
  auto const [bytesWritten, error] = Send(_fd, _write.buffer);
  if (bytesWritten == -1 && error == EAGAIN) {
    Arm(EPOLLOUT);
    return;
  }
  auto [callback, data] = _write.Take();
  if (bytesWritten >= 0) {
    _bytesSent += static_cast<std::uint64_t>(bytesWritten);
    TRACE_DEBUG("Async socket write succeeded", this, events, bytesWritten);
    Post(std::move(callback), _error,
         std::move(data).Slice(0, static_cast<std::size_t>(bytesWritten)));
    return;
  }
  TRACE_ERROR("Async socket write failed", this, events, error);
  Post(std::move(callback), StatusOf(error), data);
  CloseQuietly();
}

void SocketLinux::OnHangUpOrError(int events) {
  CloseDescriptor();
  if (Has(events, EPOLLHUP)) {
    TRACE_VERBOSE("Async socket hang up", this, events);
    _error = Base::Exception("Socket hung up");
    EndPendingOperations();
    return;
  }
  // Deliberate: the error is asked of the closed descriptor, and a call that succeeds counts as an
  // unknown error. Callers learn that there was an error, never which.
  int value = 0;
  socklen_t length = sizeof value;
  if (getsockopt(_fd.Get(), SOL_SOCKET, SO_ERROR, &value, &length) == 0) {
    int const error = errno;
    TRACE_ERROR("Async socket failed unknown error", this, events, error);
    _error = Base::Exception("Socket unknown error");
  } else {
    TRACE_ERROR("Async socket failed with error", this, events, Trace::As("error", value));
    _error = StatusOf(value);
  }
  EndPendingOperations();
}

void SocketLinux::OnWatchDropped() noexcept {
  if (_watchEvents == noWatch) return;  // by `Close`, which has ended what was pending
  _watchEvents = noWatch;
  // Out of their fields before they are destroyed: that may lead back to this socket.
  auto const connect = std::exchange(_connectCallback, {});
  auto const accept = std::exchange(_acceptCallback, {});
  auto const write = _write.Take();
  auto const read = _read.Take();
}

void SocketLinux::Close() {
  bool const isClosed = CloseDescriptor();
  EndPendingOperations();
  if (!isClosed) throw Base::Exception(_error.Get().what());
}

// After an operation that has reported its own failure.
void SocketLinux::CloseQuietly() {
  CloseDescriptor();
  EndPendingOperations();
}

// Returns false after a failure, which is logged; the descriptor is gone all the same.
bool SocketLinux::CloseDescriptor() {
  if (!_fd) return true;
  TRACE_VERBOSE("Closing socket...", this, Trace::As("fd", _fd.Get()));
  auto const companion = std::exchange(_companion, {});  // released after the descriptor
  Base::UniqueFd fd = std::move(_fd);
  _error = Base::Exception("Socket closed");
  try {
    if (auto const backoff = std::exchange(_acceptBackoff, {})) backoff->Close();
    if (std::exchange(_watchEvents, noWatch) != noWatch) _ioThread->RemoveWatch(fd.Get());
  } catch (Base::Exception const&) {
    return false;
  }
  if (close(fd.Release()) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to close socket.", this, error);
    return false;
  }
  TRACE_VERBOSE("Close socket succeeded.", this);
  return true;
}

void SocketLinux::EndPendingOperations() {
  _acceptCallback.Reset();
  if (_connectCallback) Post(std::exchange(_connectCallback, {}), _error);
  if (_write) {
    auto [callback, data] = _write.Take();
    Post(std::move(callback), _error, std::move(data));
  }
  if (_read) {
    auto [callback, data] = _read.Take();
    PostRead(std::move(callback), _error, std::move(data), true);
  }
}

bool SocketLinux::IsListening() const {
  int isListening = 0;
  socklen_t length = sizeof isListening;
  return getsockopt(_fd.Get(), SOL_SOCKET, SO_ACCEPTCONN, &isListening, &length) == 0 &&
         isListening != 0;
}

void SocketLinux::StopListening() {
  AcceptCallback const released = std::exchange(_acceptCallback, {});
  if (auto const backoff = std::exchange(_acceptBackoff, {})) backoff->Close();
  if (_fd && _watchEvents != noWatch) Disarm(EPOLLIN);
}

bool SocketLinux::HasPeerGone() const {
  pollfd state{.fd = _fd.Get(), .events = 0, .revents = 0};
  return !_fd || (poll(&state, 1, 0) == 1 && state.revents != 0);
}

void SocketLinux::ShutdownReading() noexcept {
  if (_fd) shutdown(_fd.Get(), SHUT_RD);
}

}  // namespace Net
