// Why not syslog(3): it blocks while the reader's queue is full, so a log service that has stopped
// would stop the process; and it takes a lock, which a signal handler and a forked child must not
// wait for.
//
// All threads share one connected socket. Connected, because poll(2) then waits for room in the
// reader's queue; unconnected, it would only see the process's own buffer. A send that finds no
// reader connects anew and tries once more: the log service may have started, or restarted.
//
// The patience has one end for all threads. The first line that finds no room sets it, 100 ms
// ahead; all lines wait until then and no longer. Each line that is sent clears it, because a full
// queue has room only when the reader has taken a line.

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>

#include "trace/fixed_text.h"
#include "trace/sinks.h"

namespace Trace {

namespace {

constexpr std::int64_t patienceMs = 100;
// The kernel reports room in the process's own buffer only when three quarters of it are free.
constexpr std::int64_t maxPollMs = 10;

std::int64_t GetMonotonicMs() {
  auto const now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

bool Connect(int socket) {
  sockaddr_un log{};
  log.sun_family = AF_UNIX;
  constexpr std::string_view path = _PATH_LOG;
  path.copy(log.sun_path, sizeof log.sun_path - 1);
  return connect(socket, reinterpret_cast<sockaddr*>(&log), sizeof log) == 0;
}

bool HasNoReader(int error) {
  return error == ENOTCONN || error == ECONNREFUSED || error == ECONNRESET || error == EPIPE;
}

}  // namespace

Syslog::Syslog() : _socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}

bool Syslog::WriteAtOnce(int priority, std::string_view line) noexcept {
  return Send(priority, line) == 0;
}

void Syslog::Write(int priority, std::string_view line) noexcept {
  int error = 0;
  while ((error = Send(priority, line)) == EAGAIN) {
    std::int64_t const now = GetMonotonicMs();
    std::int64_t end = 0;
    if (_patienceEndMs.compare_exchange_strong(end, now + patienceMs)) end = now + patienceMs;
    if (now >= end) break;
    pollfd reader{_socket.Get(), POLLOUT, 0};
    poll(&reader, 1, static_cast<int>(std::min(end - now, maxPollMs)));
  }
  if (error != 0) _lostLines.fetch_add(1);
}

int Syslog::Send(int priority, std::string_view line) noexcept {
  // The datagram has no time: local time takes a lock, and the receiver adds its own.
  FixedText<256> start;
  start.append("<");
  start.AppendNumber(LOG_USER | priority);
  start.append(">");
  start.append(program_invocation_short_name);
  start.append(": ");
  std::string_view const tag = start.GetText();
  std::string_view const text = line.substr(0, line.find('\0'));  // as syslog(3) with "%s"
  std::size_t const length = text.size() - (text.ends_with('\n') ? 1 : 0);
  std::array<iovec, 2> parts{
      {{const_cast<char*>(tag.data()), tag.size()}, {const_cast<char*>(text.data()), length}}};
  msghdr message{};
  message.msg_iov = parts.data();
  message.msg_iovlen = parts.size();
  auto const send = [&] {
    return sendmsg(_socket.Get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) == -1 ? errno : 0;
  };
  int error = send();
  if (HasNoReader(error) && Connect(_socket.Get())) error = send();
  if (error == 0 && _patienceEndMs.load(std::memory_order_relaxed) != 0) _patienceEndMs = 0;
  return error;
}

}  // namespace Trace
