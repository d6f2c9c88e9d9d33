#include "base/glib_thread.h"

#include "base/process_threads.h"

namespace Base {

Shared<ThreadLinuxGlib> GetGlibThread() {
  Shared<Thread> const thread = GetProcessThreads().glibThread.Get(
      [] {
        auto const made = MakeShared<ThreadLinuxGlib>();
        made->Start();
        return Shared<Thread>(made);
      },
      [](Thread& superfluous) { superfluous.Stop(); });
  // Nobody else puts one there.
  return Shared<ThreadLinuxGlib>(static_cast<ThreadLinuxGlib*>(thread.Get()));
}

}  // namespace Base
