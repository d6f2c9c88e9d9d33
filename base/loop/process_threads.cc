#include "base/loop/process_threads.h"

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("thread_pool");

namespace Base {

void ThrowShutdown() {
  TRACE_ERROR("Attempt to access thread pool after shutdown");
  throw Exception("ThreadPool has been shutdown");
}

ProcessThreads& GetProcessThreads() {
  static ProcessThreads& threads = *new ProcessThreads;
  return threads;
}

}  // namespace Base
