#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace Trace {

// The kernel's id of the calling thread. By syscall(2): gettid(2) came with glibc 2.30, and the
// portable archive runs with older ones. Safe in a signal handler.
inline pid_t GetThreadId() noexcept { return static_cast<pid_t>(syscall(SYS_gettid)); }

}  // namespace Trace
