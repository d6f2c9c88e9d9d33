#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "trace/sinks.h"

namespace Trace {

Console::Console() {
  Open(_streams[0], STDOUT_FILENO);
  Open(_streams[1], STDERR_FILENO);
}

void Console::Open(Stream& stream, int fd) {
  stream.fd = fd;
  struct stat status {};
  if (fstat(fd, &status) == -1) return;
  stream.isSocket = S_ISSOCK(status.st_mode);
  if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return;
  std::string const path = "/proc/self/fd/" + std::to_string(fd);
  stream.reopened.Reset(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (stream.reopened) stream.fd = stream.reopened.Get();
}

void Console::Write(bool toStandardError, std::string_view line, int patienceMs) noexcept {
  Stream& stream = _streams[toStandardError ? 1 : 0];
  bool const complete = WriteAll(stream, line, patienceMs);
  if (stream.stalled.load(std::memory_order_relaxed) == complete) {
    stream.stalled.store(!complete, std::memory_order_relaxed);
  }
}

bool Console::WriteAll(Stream& stream, std::string_view line, int patienceMs) noexcept {
  while (!line.empty()) {
    ssize_t const written =
        stream.isSocket ? send(stream.fd, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                        : write(stream.fd, line.data(), line.size());
    if (written >= 0) {
      line.remove_prefix(static_cast<std::size_t>(written));
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return true;  // closed or broken: there is no reader to wait for
    pollfd reader{stream.fd, POLLOUT, 0};
    int const timeoutMs = stream.stalled.load(std::memory_order_relaxed) ? 0 : patienceMs;
    if (poll(&reader, 1, timeoutMs) <= 0) return false;
  }
  return true;
}

}  // namespace Trace
