#pragma once

#include "base/glib/thread_linux_glib.h"
#include "base/loop/thread_pool.h"
#include "base/shared.h"

namespace Base {

// The process-wide pools, each created on first use with as many workers as there are processors,
// at least two. Their timers fire on the process-wide GLib thread, which the first pool starts.
// After `ShutdownThreadPools` (base/loop/thread_pool.h) has ended pools and thread, all three
// functions throw Exception "ThreadPool has been shutdown".
//
// Threads: any.

// The general pool shares idle workers with the other GLib pools of this process. Its scheduled
// tasks run on the GLib thread, one at a time: they must not block, and a task that schedules its
// successor without a delay starves the others.
Shared<ThreadPool> GetThreadPool();

// The exclusive pool starts workers of its own at once and runs its scheduled tasks on them.
Shared<ThreadPool> GetExclusiveThreadPool();

// The process-wide GLib thread, created and started on first use. Any code may attach sources to
// its context.
Shared<ThreadLinuxGlib> GetGlibThread();

}  // namespace Base
