#pragma once

#include "base/loop/thread_linux.h"
#include "base/shared.h"

namespace Base {

// The process-wide IO thread, on which sockets and streams complete. Created and started on first
// use. Throws Exception "ThreadPool has been shutdown" once it has been shut down.
Shared<ThreadLinux> GetIOThread();

// Whether the caller runs on the process-wide IO thread.
bool IsIOThread();

// Stops the IO thread, then the GLib thread (base/glib/process_pools.h), waits for each and lets go
// of it; they do not come back. Part of `ShutdownThreadPools`, which is the one to call.
void ShutdownThreads();

}  // namespace Base
