#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/buffer.h"
#include "base/callback.h"
#include "base/loop/step_budget.h"
#include "base/loop/thread_linux.h"
#include "base/loop/watch_hold.h"
#include "base/maybe.h"
#include "base/shared.h"
#include "base/stream.h"
#include "base/unique_fd.h"
#include "io/pending_operation.h"
#include "net/address.h"
#include "net/socket.h"

namespace Net {

class AcceptBackoff;
class SocketLinux;
struct Received;

// Status, the peer's address, the connection (empty on failure).
using AcceptCallback =
    Base::Shared<Base::CallbackNoCopy<Base::Status const&, Address, Base::Shared<SocketLinux>>>;

// The process at the other end, as SO_PEERCRED reports it; see unix(7).
struct PeerCredentials {
  std::int32_t pid = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

// A non-blocking socket. It tries each operation at once, and watches the descriptor on the IO
// thread's loop for what would block.
//
// Threads:  also the constructors on any thread.
// Lifetime: the registered watch holds the socket, too: until `Close`, an error, or the loop's end.
// Errors:   a hang-up or an error of the descriptor closes the socket even when nothing is pending,
//           once an operation has had to wait.
// Signals:  a send to a peer that is gone raises SIGPIPE, which the process has to survive.
class SocketLinux final : public Socket {
 public:
  // socket(2). Throws Base::ExceptionPosix.
  SocketLinux(int domain, int type, int protocol, Base::Shared<Base::ThreadLinux> ioThread);

  // Takes over an open socket and makes it non-blocking. Throws "Invalid socket" for an empty `fd`,
  // Base::ExceptionPosix when the descriptor's flags cannot be read or set.
  SocketLinux(Base::UniqueFd fd, Base::Shared<Base::ThreadLinux> ioThread);

  ~SocketLinux() override;

  void Bind(Address const& address) override;
  void SetOption(int level, int option, void const* value, socklen_t valueLength) override;

  // Calls back for every connection and for every accept(2) that fails, as long as the socket is
  // open. After a failure that would repeat itself at once, an accept backoff follows: without
  // descriptors or memory until there are some again, else of one second. A failed listen(2) is
  // reported through the callback, too. Called again, it replaces the number and the callback.
  // Throws Base::ExceptionPosix when the socket cannot be watched; "Invalid Callback" for an empty
  // callback.
  void Listen(int maxConnections, AcceptCallback acceptCallback);

  // Accepts no connection while that would leave fewer than `count` descriptors to this process;
  // the kernel's backlog then holds new clients. Before `Listen`.
  void KeepDescriptorsFree(int count) { _reservedDescriptors = count; }

  // Whether listen(2) has succeeded.
  bool IsListening() const;

  // Ends the accepting: the descriptor stays open, and new clients stay in the kernel's backlog,
  // for another process that has the socket. Throws Base::ExceptionPosix.
  void StopListening();

  // The peer of a connected AF_UNIX socket; zeros for other sockets. Throws Base::ExceptionPosix.
  PeerCredentials GetPeerCredentials();

  // Whether the peer has closed its end, or shut down both directions. What it sent before may
  // still be unread. True for a closed socket.
  bool HasPeerGone() const;

  // Ends the receiving side, see shutdown(2): reads get what has arrived and then the end of the
  // stream; a send of an AF_UNIX peer fails with EPIPE. Does nothing on a closed socket.
  void ShutdownReading() noexcept;

  // Limits the reads that complete in one round of the loop, so that a peer whose bytes are always
  // there cannot keep the loop from polling. After `perRound` completions in a round the next one
  // waits for the next round, where it does not count. In the current round only `thisRound` more
  // complete: a reader that calls this with 0 before each message gets one message a round. Without
  // a call there is no limit.
  void LimitReads(unsigned perRound, unsigned thisRound) {
    _readBudget.emplace(_ioThread, perRound, thisRound);
  }

  // How many bytes the kernel has taken from this socket's writes.
  std::uint64_t GetBytesSent() const { return _bytesSent; }

  // Releases `object` when the descriptor closes. One object.
  void HoldUntilClosed(Base::Shared<Base::Shareable> object) { _companion = std::move(object); }

  void Connect(Address const& address, Base::StatusCallback callback) override;
  void Disconnect(Base::StatusCallback callback) override;
  void Write(Buffer data, WriteCallback callback) override;

  // A record of a packet socket that is longer than `data` is truncated; a WARNING line says so.
  void Read(Buffer data, ReadCallback callback) override;

  void Close() override;

 private:
  friend Base::WatchHold<SocketLinux>;

  // Throws the latched error, if there is one; `message` says what was attempted.
  template <typename... Fields>
  void ThrowLatchedError(std::string_view message, Fields const&... fields);

  void Arm(std::uint32_t event);
  void Disarm(std::uint32_t events);
  void OnEvents(int events);
  void OnConnected();
  void OnAcceptable();
  void OnAccepted(Base::UniqueFd fd, Address const& address);
  void OnReadable(int events);
  void OnWritable(int events);
  void OnHangUpOrError(int events);
  void OnWatchDropped() noexcept;
  void PostAcceptError(std::string text);
  Received Receive(Buffer const& data);
  bool CloseDescriptor();
  void CloseQuietly();
  void EndPendingOperations();

  template <typename Callback, typename... Results>
  Base::Task BindCompletion(Callback callback, Results... results);
  template <typename Callback, typename... Results>
  void Post(Callback callback, Results... results);
  void PostRead(ReadCallback callback, Base::Status status, Buffer data, bool complete);

  Base::Shared<Base::Shareable> _companion;  // released after the descriptor
  Base::UniqueFd _fd;
  int const _receiveFlags;
  Base::Shared<Base::ThreadLinux> _ioThread;
  std::uint32_t _watchEvents;  // the watch's interest; all bits set: there is no watch
  Base::Status _error;         // once set it stays set
  Base::StatusCallback _connectCallback;
  AcceptCallback _acceptCallback;
  int _reservedDescriptors = 0;
  Base::Shared<AcceptBackoff> _acceptBackoff;  // of a listening socket
  IO::PendingOperation<WriteCallback> _write;
  IO::PendingOperation<ReadCallback> _read;
  std::optional<Base::StepBudget> _readBudget;  // when reads are limited
  std::uint64_t _bytesSent = 0;
};

}  // namespace Net
