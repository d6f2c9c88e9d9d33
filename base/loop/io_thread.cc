#include "base/loop/io_thread.h"

#include "base/loop/process_threads.h"
#include "trace/trace.h"

TRACE_MODULE("thread_linux");

namespace Base {

Shared<ThreadLinux> GetIOThread() {
  return GetProcessThreads().ioThread.Get([] {
    auto const ioThread = MakeShared<ThreadLinux>();
    ioThread->Start();
    TRACE_INFO("This is the IO thread", Trace::As("this", ioThread));
    return ioThread;
  });
}

void ShutdownThreads() {
  TRACE_VERBOSE("Thread is being shutdown...");
  // Tasks of the last round still get their thread from its accessor: `Finish` releases it later.
  auto const stop = [](Thread& thread) { thread.Stop(); };
  GetProcessThreads().ioThread.Finish(stop);
  GetProcessThreads().glibThread.Finish(stop);
  TRACE_VERBOSE("Thread shutdown complete.");
}

}  // namespace Base
