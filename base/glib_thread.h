#pragma once

#include "base/shared.h"
#include "base/thread_linux_glib.h"

namespace Base {

// The process-wide GLib thread, whose context the process-wide pools set their timers on; for other
// users of GLib's main loop too. Created and started on first use. Throws Exception "ThreadPool has
// been shutdown" once it has been shut down (see `ShutdownThreadPools`).
Shared<ThreadLinuxGlib> GetGlibThread();

}  // namespace Base
