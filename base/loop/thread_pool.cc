#include "base/loop/thread_pool.h"

#include <mutex>
#include <utility>

#include "base/loop/io_thread.h"
#include "base/loop/process_threads.h"
#include "trace/trace.h"

TRACE_MODULE("thread_pool");

namespace Base {

void ShutdownThreadPools() {
  static std::once_flag isShutdown;
  std::call_once(isShutdown, [] {
    TRACE_VERBOSE("ThreadPool is being shutdown...");
    // Releasing the pools is not enough: others may hold them, and their tasks must not run after
    // the threads that they use have ended.
    auto const close = [](ThreadPool& pool) { pool.Close(false); };
    GetProcessThreads().pool.Finish(close);
    GetProcessThreads().exclusivePool.Finish(close);
    ShutdownThreads();
    TRACE_VERBOSE("ThreadPool shutdown complete.");
  });
}

void PostStop(Shared<Thread> const& thread, Callback<> completion) {
  TRACE_VERBOSE("Thread posting stop", Trace::As("this", thread));
  thread->PostTask(MakeCallback([thread, completion = std::move(completion)] {
    thread->Stop();
    completion.Call();
  }));
}

}  // namespace Base
