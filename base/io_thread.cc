#include "base/io_thread.h"

#include <mutex>
#include <utility>

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("thread_linux");

namespace Base {

namespace {

struct ProcessThreads {
  std::mutex mutex;
  Shared<ThreadLinux> ioThread;
  bool isShutdown = false;
};

// Never destroyed: it is asked until the process is gone.
ProcessThreads& GetProcessThreads() {
  static ProcessThreads& threads = *new ProcessThreads;
  return threads;
}

// Makes `candidate` the IO thread where there is none yet, and returns the one that there is then.
// Throws when the threads have been shut down.
Shared<ThreadLinux> Designate(Shared<ThreadLinux> const& candidate) {
  ProcessThreads& threads = GetProcessThreads();
  {
    std::lock_guard const lock(threads.mutex);
    if (!threads.isShutdown) {
      if (!threads.ioThread) threads.ioThread = candidate;
      return threads.ioThread;
    }
  }
  TRACE_ERROR("Attempt to access thread pool after shutdown");
  throw Exception("ThreadPool has been shutdown");
}

Shared<ThreadLinux> FindIOThread() {
  ProcessThreads& threads = GetProcessThreads();
  std::lock_guard const lock(threads.mutex);
  return threads.ioThread;
}

}  // namespace

Shared<ThreadLinux> GetIOThread() {
  if (Shared<ThreadLinux> ioThread = Designate({})) return ioThread;

  // Started before others can see it, and without the lock.
  auto const candidate = MakeShared<ThreadLinux>();
  candidate->Start();
  Shared<ThreadLinux> ioThread = Designate(candidate);
  if (ioThread == candidate) {
    TRACE_INFO("This is the IO thread", Trace::As("this", ioThread));
  } else {
    candidate->Stop();
  }
  return ioThread;
}

bool IsIOThread() {
  Shared<ThreadLinux> const ioThread = FindIOThread();
  return ioThread && ioThread->IsCurrentThread();
}

void ShutdownThreads() {
  TRACE_VERBOSE("Thread is being shutdown...");
  // Tasks of its last round still find it.
  if (Shared<ThreadLinux> const ioThread = FindIOThread()) ioThread->Stop();
  Shared<ThreadLinux> released;
  {
    ProcessThreads& threads = GetProcessThreads();
    std::lock_guard const lock(threads.mutex);
    released = std::exchange(threads.ioThread, {});
    threads.isShutdown = true;
  }
  TRACE_VERBOSE("Thread shutdown complete.");
}

}  // namespace Base
