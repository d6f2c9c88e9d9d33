#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/buffer.h"
#include "base/callback.h"
#include "base/loop/thread_linux.h"
#include "base/loop/watch_hold.h"
#include "base/maybe.h"
#include "base/shared.h"
#include "base/stream.h"
#include "base/unique_fd.h"
#include "net/address.h"
#include "net/socket.h"

namespace Net {

class SocketLinux;

// Status, the peer's address, the connection (empty on failure).
using AcceptCallback =
    Base::Shared<Base::CallbackNoCopy<Base::Status const&, Address, Base::Shared<SocketLinux>>>;

// What SO_PEERCRED tells of the process at the other end, see unix(7).
struct PeerCredentials {
  std::int32_t pid = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

// A non-blocking socket, watched on the IO thread's loop.
//
// Reads and writes are tried at once; what would block waits for the watch. Either way the callback
// is posted, never called from inside the operation, and exactly once: also by `Close` and by
// errors, which end whatever is pending. There is no way back from an error: its text, or that of a
// later one, is what every later operation throws.
//
// Threads:  the constructors and Bind on any thread, all else on the IO thread.
// Lifetime: a registered watch and every pending operation hold the socket: until they complete, it
//           closes, or the loop ends and lets go of them.
// Errors:   "Socket already connecting", "Socket already writing", "Socket already reading",
//           "Invalid Callback", "Invalid socket"; after an error that error's text: "Socket
//           closed", "Socket hung up", "Socket unknown error", or an errno's. Base::ExceptionPosix
//           for failed system calls. Each after an ERROR line.
// Signals:  a send to a peer that is gone raises SIGPIPE, which the process has to survive.
class SocketLinux final : public Socket {
 public:
  // socket(2).
  SocketLinux(int domain, int type, int protocol, Base::Shared<Base::ThreadLinux> ioThread);

  // Takes over an open socket and makes it non-blocking.
  SocketLinux(Base::UniqueFd fd, Base::Shared<Base::ThreadLinux> ioThread);

  void Bind(Address const& address) override;
  void SetOption(int level, int option, void const* value, socklen_t valueLength) override;

  // Calls back for every connection and for every failed attempt to take one, for as long as the
  // socket is open. After a failure that would only repeat itself it rests from accepting: out of
  // descriptors or memory until there are some, else for a second. A failed listen(2) is reported
  // through the callback, too. Throws Base::ExceptionPosix when it cannot watch the socket.
  void Listen(int maxConnections, AcceptCallback acceptCallback);

  PeerCredentials GetPeerCredentials();

  void Connect(Address const& address, Base::StatusCallback callback) override;
  void Disconnect(Base::StatusCallback callback) override;
  void Write(Buffer data, WriteCallback callback) override;

  // A record of a packet socket that is longer than `data` loses its rest; a WARNING line says so.
  void Read(Buffer data, ReadCallback callback) override;

  void Close() override;

 private:
  friend Base::WatchHold<SocketLinux>;

  struct Received {
    ssize_t length;  // -1 on failure, see `error`
    int error;
  };

  // The socket throws what went wrong with it before; `message` says what was attempted.
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
  void MakeRestTimer();
  void RestFromAccepting(int error);
  void OnRested();
  Received Receive(Buffer const& data);
  void CloseDescriptor();
  void CloseQuietly();
  void EndPendingOperations();

  template <typename Callback, typename... Results>
  void Post(Callback callback, Results... results);

  Base::UniqueFd _fd;
  Base::Shared<Base::ThreadLinux> _ioThread;
  std::uint32_t _watchEvents;  // the watch's interest; all bits set: there is no watch
  Base::Status _error;         // once set it stays set
  Base::StatusCallback _connectCallback;
  AcceptCallback _acceptCallback;
  Base::UniqueFd _restTimer;  // of a listening socket; made with it, for there may be no more later
  bool _isOutOfResources = false;
  WriteCallback _writeCallback;
  Buffer _writeBuffer;
  ReadCallback _readCallback;
  Buffer _readBuffer;
};

}  // namespace Net
