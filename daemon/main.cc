#include <malloc.h>

#include <cstdio>

#include "base/exception.h"
#include "base/standard_streams.h"
#include "daemon/daemon.h"
#include "daemon/signal_thread.h"
#include "daemon/usage.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

TRACE_MODULE("main");

namespace {

int Print(char const* text) {
  return std::fputs(text, stdout) == EOF || std::fflush(stdout) == EOF ? 1 : 0;
}

// A large packet gets its own pages, which return to the kernel with it. Otherwise packets would
// grow the heap for good, and the announcement of a packet could take memory that an earlier packet
// has touched.
void LimitHeap() {
  mallopt(M_MMAP_THRESHOLD, 32768);
  mallopt(M_ARENA_MAX, 1);
}

}  // namespace

int main(int argc, char** argv) {
  if (IsWordOfCommandLine(argc, argv, "--help")) return Print(GetDaemonUsage().c_str());
  if (IsWordOfCommandLine(argc, argv, "--version"))
    return Print("ktclientd " KTCLIENTD_VERSION "\n");
  PassedSockets const passed = TakePassedSockets();
  Base::OpenMissingStandardStreams();
  LimitHeap();
  ParseArguments(argc, argv);
  try {
    SurviveBrokenPipes();
    StartSignalThread();
    Trace::InitializeTrace(false, "ktclientd.log");
    RunDaemon(passed);
    return 0;
  } catch (Base::Exception const& err) {
    TRACE_ERROR("Failed running client daemon", err);
  }
  AbandonStart();
  return 1;
}
