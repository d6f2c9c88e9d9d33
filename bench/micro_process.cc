#include <benchmark/benchmark.h>

#include <future>
#include <utility>

#include "base/callback.h"
#include "base/io_thread.h"
#include "process/process_exec_linux.h"

namespace {

// From the call until the exit has been reported, which the loop has to notice.
void StartProgram(benchmark::State& state) {
  auto const thread = Base::GetIOThread();
  for ([[maybe_unused]] auto const& round : state) {
    std::promise<void> exited;
    std::future<void> const end = exited.get_future();
    auto const process = Process::ProcessExecLinux::Execute(thread, "/bin/true", {});
    process->WaitForExit(
        Base::MakeCallback([exited = std::move(exited)]() mutable { exited.set_value(); }));
    end.wait();
  }
}
BENCHMARK(StartProgram)->Name("Execute /bin/true")->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
