#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <future>
#include <utility>

#include "base/callback.h"
#include "base/glib/thread_linux_glib.h"
#include "base/glib/thread_pool_linux_glib.h"
#include "base/loop/task_runner.h"
#include "base/loop/thread_linux.h"
#include "base/loop/thread_pool.h"
#include "base/shared.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

TRACE_MODULE("micro");

namespace {

template <typename Thread>
class OnThread {
 public:
  OnThread() { runner->Start(); }
  ~OnThread() { runner->Stop(); }

  Base::Shared<Thread> const runner = Base::MakeShared<Thread>();
};

// With one worker, so that it compares with a thread.
class OnPool {
 public:
  ~OnPool() { runner->Close(false); }

  Base::Shared<Base::ThreadPool> const runner =
      Base::MakeShared<Base::ThreadPoolLinuxGlib>(nullptr, 1, true);
};

using OnThreadLinux = OnThread<Base::ThreadLinux>;
using OnThreadLinuxGlib = OnThread<Base::ThreadLinuxGlib>;

void PostOneAndWait(Base::TaskRunner& runner) {
  std::promise<void> promise;
  std::future<void> const ran = promise.get_future();
  runner.PostTask(
      Base::MakeCallback([promise = std::move(promise)]() mutable { promise.set_value(); }));
  ran.wait();
}

// Creates, posts, runs and destroys a task; posts many tasks in a row.
template <typename Executor>
void Post(benchmark::State& state) {
  constexpr int count = 1000;
  Executor const executor;
  while (state.KeepRunning()) {
    for (int i = 1; i < count; ++i) executor.runner->PostTask(Base::MakeCallback([] {}));
    PostOneAndWait(*executor.runner);
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(Post<OnThreadLinux>)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Post<OnThreadLinuxGlib>)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Post<OnPool>)->UseRealTime()->Unit(benchmark::kMicrosecond);

// One round trip: both threads sleep in between.
template <typename Executor>
void PostAndWait(benchmark::State& state) {
  Executor const executor;
  while (state.KeepRunning()) PostOneAndWait(*executor.runner);
}
BENCHMARK(PostAndWait<OnThreadLinux>)->UseRealTime();
BENCHMARK(PostAndWait<OnThreadLinuxGlib>)->UseRealTime();
BENCHMARK(PostAndWait<OnPool>)->UseRealTime();

void TraceDisabled(benchmark::State& state) {
  std::size_t bytesRead = 0;
  constexpr int batch = 1000;  // the benchmark loop's own test costs more than one disabled call
  while (state.KeepRunningBatch(batch)) {
    for (int i = 0; i < batch; ++i) {
      TRACE_DEBUG("Read succeeded", Trace::As("this", &state), ++bytesRead);
    }
  }
  benchmark::DoNotOptimize(bytesRead);
}
BENCHMARK(TraceDisabled);

void TraceEnabled(benchmark::State& state) {
  std::size_t bytesRead = 0;
  while (state.KeepRunning()) {
    TRACE_VERBOSE("Read succeeded", Trace::As("this", &state), ++bytesRead);
  }
}
BENCHMARK(TraceEnabled);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  // VERBOSE is on and DEBUG is off; the lines go to /dev/null.
  constexpr std::array traceArguments{"micro", "--trace-level=4", "--trace-file=/dev/null"};
  ParseArguments(traceArguments.size(), traceArguments.data());
  Trace::InitializeTrace(true, "micro.log");
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
