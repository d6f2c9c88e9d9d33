#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace Process {

// Returns a close-on-exec descriptor that becomes readable when the process `pid` exits, see
// pidfd_open(2). Returns an empty one, with errno, when the kernel is older than 5.3 or no
// descriptor is free.
inline Base::UniqueFd OpenPidfd(pid_t pid) {
  // By syscall(2), because some versions of glibc declare pidfd_open without C++ linkage.
  return Base::UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

}  // namespace Process
