#include <benchmark/benchmark.h>

#include <future>
#include <string>
#include <utility>

#include "base/callback.h"
#include "base/loop/thread_linux.h"
#include "base/shared.h"
#include "process/process_exec_linux.h"

namespace {

// From the call until the loop has reported the exit.
void Execute(benchmark::State& state) {
  auto const thread = Base::MakeShared<Base::ThreadLinux>();
  thread->Start();
  while (state.KeepRunning()) {
    std::promise<void> exited;
    std::future<void> const end = exited.get_future();
    auto const process = Process::ProcessExecLinux::Execute(thread, "/bin/true", {});
    process->WaitForExit(
        Base::MakeCallback([exited = std::move(exited)]() mutable { exited.set_value(); }));
    end.wait();
  }
  thread->Stop();
}
BENCHMARK(Execute)->UseRealTime()->Unit(benchmark::kMicrosecond);

void ExecuteSyncCommand(benchmark::State& state) {
  std::string output;
  while (state.KeepRunning()) {
    if (Process::ExecuteSyncCommand("/bin/true", output) != 0) state.SkipWithError("failed");
  }
}
BENCHMARK(ExecuteSyncCommand)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
