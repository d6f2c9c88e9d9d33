#include "daemon/service_protocol.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>

#include "base/unique_fd.h"

namespace ServiceProtocol {

namespace {

constexpr int firstFd = 3;

// Returns 0 or a negative errno.
int ParseNumber(std::string_view text, int& number) {
  char const* const end = text.data() + text.size();
  auto const [stop, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc::result_out_of_range) return -ERANGE;
  return error == std::errc() && stop == end ? 0 : -EINVAL;
}

char const* GetVariable(char const* name) {
  return std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody changes the environment
}

}  // namespace

int ListenFds() {
  char const* const pidText = GetVariable("LISTEN_PID");
  if (pidText == nullptr) return 0;
  pid_t pid = 0;
  if (int const error = ParseNumber(pidText, pid); error != 0) return error;
  if (pid <= 0) return -ERANGE;
  if (pid != getpid()) return 0;
  char const* const countText = GetVariable("LISTEN_FDS");
  if (countText == nullptr) return 0;
  int count = 0;
  if (int const error = ParseNumber(countText, count); error != 0) return error;
  if (count <= 0 || count > INT_MAX - firstFd) return -EINVAL;
  for (int fd = firstFd; fd < firstFd + count; ++fd) {
    int const flags = fcntl(fd, F_GETFD);
    if (flags == -1 || fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == -1) return -errno;
  }
  return count;
}

int Notify(char const* state) {
  char const* const socketText = GetVariable("NOTIFY_SOCKET");
  if (socketText == nullptr) return 0;
  std::string_view const name = socketText;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // A path is followed by its zero byte. A name in the abstract namespace has none, and "@" stands
  // for the zero byte in front of it.
  bool const isPath = name.starts_with('/');
  if (!isPath && (name.size() < 2 || name[0] != '@')) return -EINVAL;
  std::size_t const length = name.size() + (isPath ? 1 : 0);
  if (length > sizeof address.sun_path) return isPath ? -ENAMETOOLONG : -EINVAL;
  std::memcpy(&address.sun_path[0], name.data(), name.size());
  if (!isPath) address.sun_path[0] = '\0';

  Base::UniqueFd const fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd) return -errno;
  auto const addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  ssize_t const sent = sendto(fd.Get(), state, std::strlen(state), MSG_NOSIGNAL,
                              reinterpret_cast<sockaddr const*>(&address), addressLength);
  return sent == -1 ? -errno : 1;
}

}  // namespace ServiceProtocol
