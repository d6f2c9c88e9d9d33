#include "base/glib/process_pools.h"

#include <algorithm>
#include <thread>

#include "base/glib/thread_pool_linux_glib.h"
#include "base/loop/process_threads.h"

namespace Base {

namespace {

Shared<ThreadPool> MakePool(bool exclusive) {
  int const workers = std::max(2, static_cast<int>(std::thread::hardware_concurrency()));
  return MakeShared<ThreadPoolLinuxGlib>(GetGlibThread()->GetContext(), workers, exclusive);
}

}  // namespace

Shared<ThreadPool> GetThreadPool() {
  return GetProcessThreads().pool.Get([] { return MakePool(false); });
}

Shared<ThreadPool> GetExclusiveThreadPool() {
  return GetProcessThreads().exclusivePool.Get([] { return MakePool(true); });
}

Shared<ThreadLinuxGlib> GetGlibThread() {
  Shared<Thread> const thread = GetProcessThreads().glibThread.Get([] {
    auto const made = MakeShared<ThreadLinuxGlib>();
    made->Start();
    return made;
  });
  // Only this function creates the object, so the thread is of this class.
  return Shared<ThreadLinuxGlib>(static_cast<ThreadLinuxGlib*>(thread.Get()));
}

}  // namespace Base
