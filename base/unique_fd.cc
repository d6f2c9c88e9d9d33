#include "base/unique_fd.h"

#include <unistd.h>

#include <cerrno>

namespace Base {

void UniqueFd::Reset(int fd) noexcept {
  int const old = std::exchange(_fd, fd);
  if (old < 0) return;
  int const error = errno;
  // Not repeated after EINTR: Linux has closed the descriptor by then, see close(2).
  close(old);
  errno = error;
}

}  // namespace Base
