#pragma once

#include "base/loop/thread_linux.h"
#include "base/shared.h"

namespace Base {

// Returns the process-wide IO thread, on which sockets and streams complete; creates and starts it
// on first use. Throws Exception "ThreadPool has been shutdown" after `ShutdownThreads`.
Shared<ThreadLinux> GetIOThread();

// Stops the IO thread, then the GLib thread (base/glib/process_pools.h), waits for each and
// releases it. Neither is created again. `ShutdownThreadPools` calls this; call that function
// instead.
void ShutdownThreads();

}  // namespace Base
