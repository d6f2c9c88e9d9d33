#pragma once

#include "base/callback.h"
#include "base/shared.h"
#include "base/thread.h"

namespace Base {

// Ends the process-wide threads, once: a second call does nothing. From the thread that runs
// `main`.
void ShutdownThreadPools();

// Queues a task on `thread` that stops it and then calls `completion`, if there is one.
void PostStop(Shared<Thread> const& thread, Callback<> completion = {});

}  // namespace Base
