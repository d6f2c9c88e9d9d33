#include <algorithm>
#include <thread>

#include "base/glib_thread.h"
#include "base/process_threads.h"
#include "base/thread_pool.h"
#include "base/thread_pool_linux_glib.h"

// Apart from base/thread_pool.cc, which every program needs for its shutdown: only what asks for a
// pool is linked with GLib.

namespace Base {

namespace {

Shared<ThreadPool> Get(ProcessWide<ThreadPool>& pools, bool exclusive) {
  return pools.Get(
      [exclusive]() -> Shared<ThreadPool> {
        int const workers = std::max(2, static_cast<int>(std::thread::hardware_concurrency()));
        return MakeShared<ThreadPoolLinuxGlib>(GetGlibThread()->GetContext(), workers, exclusive);
      },
      [](ThreadPool& superfluous) { superfluous.Close(true); });
}

}  // namespace

Shared<ThreadPool> GetThreadPool() { return Get(GetProcessThreads().pool, false); }

Shared<ThreadPool> GetExclusiveThreadPool() { return Get(GetProcessThreads().exclusivePool, true); }

}  // namespace Base
