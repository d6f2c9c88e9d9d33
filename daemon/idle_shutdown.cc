#include "daemon/idle_shutdown.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>

#include "base/exception.h"
#include "base/loop/thread.h"
#include "base/loop/thread_pool.h"
#include "base/unique_fd.h"
#include "daemon/activity.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

TRACE_MODULE("main");

// The check is a scheduled task. The loop may be preempted after it has looked for due tasks and
// before it waits; a check that becomes overdue in between does not end the wait, and on this loop
// nothing else may ever happen. So a timer ends the wait soon after the check is due. A check that
// has run by then has set the timer anew.

namespace {

using std::chrono::milliseconds;

constexpr milliseconds grace(100);

// Never destroyed: the watch of the loop may still use the descriptor.
Base::UniqueFd& GetTimer() {
  static auto& timer = *new Base::UniqueFd;
  return timer;
}

timespec ToTimespec(milliseconds duration) {
  auto const seconds = std::chrono::floor<std::chrono::seconds>(duration);
  return {seconds.count(), std::chrono::nanoseconds(duration - seconds).count()};
}

std::chrono::seconds GetPeriod() {
  return std::chrono::seconds(GetIntArgument("activated-period", 300));
}

void PostCheck(Base::Thread& mainThread, milliseconds delay) {
  mainThread.PostScheduledTask(delay.count(), Base::MakeCallback([] { CheckIdleShutdown(); }));
  itimerspec const timeout{.it_interval = ToTimespec(grace),
                           .it_value = ToTimespec(std::max(delay, milliseconds(0)) + grace)};
  timerfd_settime(GetTimer().Get(), 0, &timeout, nullptr);
}

}  // namespace

void StartIdleShutdown(Base::ThreadLinux& mainThread) {
  GetTimer().Reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  if (!GetTimer()) {
    int const errorNumber = errno;
    TRACE_ERROR("Failed to create idle timer", errorNumber);
    throw Base::ExceptionPosix(errorNumber);
  }
  mainThread.AddWatch(GetTimer().Get(), EPOLLIN, Base::MakeCallback([](int fd, int /*events*/) {
                        // It only wakes the loop; its value means nothing.
                        std::uint64_t expirations = 0;
                        static_cast<void>(!read(fd, &expirations, sizeof expirations));
                      }));
  PostCheck(mainThread, GetPeriod());
}

void CheckIdleShutdown() {
  auto const mainThread = Base::Thread::GetCurrent();
  auto const lastReadTime = GetLastReadTime();
  auto const shutdownTimeout = lastReadTime + GetPeriod();
  auto const now = std::chrono::system_clock::now();
  if (shutdownTimeout >= now) {
    TRACE_VERBOSE("Shutdown not required due to recent read", lastReadTime, shutdownTimeout, now);
    PostCheck(*mainThread, std::chrono::duration_cast<milliseconds>(shutdownTimeout - now));
    return;
  }
  TRACE_VERBOSE("Shutting down due to lack of activity", lastReadTime, shutdownTimeout, now);
  Base::PostStop(mainThread);
}
