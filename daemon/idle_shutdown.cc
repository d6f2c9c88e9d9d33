#include "daemon/idle_shutdown.h"

#include "base/thread.h"
#include "base/thread_pool.h"
#include "daemon/activity.h"
#include "trace/trace.h"
#include "utilities/arguments.h"

TRACE_MODULE("main");

std::chrono::seconds GetActivatedPeriod() {
  return std::chrono::seconds(GetIntArgument("activated-period", 300));
}

void CheckIdleShutdown() {
  auto const mainThread = Base::Thread::GetCurrent();
  auto const lastReadTime = GetLastReadTime();
  auto const shutdownTimeout = lastReadTime + GetActivatedPeriod();
  auto const now = std::chrono::system_clock::now();
  if (shutdownTimeout >= now) {
    TRACE_VERBOSE("Shutdown not required due to recent read", lastReadTime, shutdownTimeout, now);
    auto const delay = std::chrono::duration_cast<std::chrono::milliseconds>(shutdownTimeout - now);
    mainThread->PostScheduledTask(delay.count(), Base::MakeCallback([] { CheckIdleShutdown(); }));
    return;
  }
  TRACE_VERBOSE("Shutting down due to lack of activity", lastReadTime, shutdownTimeout, now);
  Base::PostStop(mainThread);
}
