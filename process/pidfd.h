#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace Process {

// A descriptor that becomes readable when the process `pid` exits, see pidfd_open(2); close-on-exec
// by itself. Empty, with errno, on old kernels and when descriptors are short.
inline Base::UniqueFd OpenPidfd(pid_t pid) {
  // By its number: the library's own declaration is, in some versions, not one for C++.
  return Base::UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

}  // namespace Process
