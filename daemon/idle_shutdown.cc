#include "daemon/idle_shutdown.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <utility>

#include "base/exception.h"
#include "base/unique_fd.h"
#include "daemon/activity.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

TRACE_MODULE("main");

// The trace shows times of the system clock, but the check decides by the monotonic clock and waits
// on a timer of that clock: a step of the system clock neither ends a daemon that has just served
// somebody nor keeps an idle one. For the same reason the check is no scheduled task of the loop,
// whose delays count on the system clock.

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

// A daemon at work is not idle for at least a period; with a period of 0 the check would spin.
constexpr milliseconds shortestDelay(1000);

struct IdleCheck {
  Base::UniqueFd timer;
  Base::Callback<> onIdle;
};

// Never destroyed: the watch of the loop may still use the descriptor.
IdleCheck& GetIdleCheck() {
  static auto& check = *new IdleCheck;
  return check;
}

std::chrono::seconds GetPeriod() {
  return std::chrono::seconds(GetIntArgument("activated-period", 300));
}

void Schedule(nanoseconds delay) {
  // A value of 0 would disarm the timer.
  auto const wait = std::max(delay, nanoseconds(1));
  auto const seconds = std::chrono::floor<std::chrono::seconds>(wait);
  itimerspec const setting{.it_interval = {0, 0},
                           .it_value = {seconds.count(), nanoseconds(wait - seconds).count()}};
  timerfd_settime(GetIdleCheck().timer.Get(), 0, &setting, nullptr);
}

void CheckIdleShutdown() {
  auto const period = GetPeriod();
  bool const isAtWork = IsAtWork();
  auto const activity = GetLastActivity();
  auto const lastReadTime = activity.system;
  auto const shutdownTimeout = lastReadTime + period;
  auto const now = std::chrono::system_clock::now();
  auto const remaining = activity.monotonic + period - steady_clock::now();
  if (isAtWork || remaining >= nanoseconds(0)) {
    TRACE_VERBOSE("Shutdown not required due to recent read", lastReadTime, shutdownTimeout, now);
    Schedule(isAtWork ? std::max<nanoseconds>(period, shortestDelay) : remaining);
    return;
  }
  TRACE_VERBOSE("Shutting down due to lack of activity", lastReadTime, shutdownTimeout, now);
  GetIdleCheck().onIdle.Call();
}

}  // namespace

void StartIdleShutdown(Base::ThreadLinux& mainThread, Base::Callback<> onIdle) {
  IdleCheck& check = GetIdleCheck();
  check.onIdle = std::move(onIdle);
  check.timer.Reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  if (!check.timer) {
    int const errorNumber = errno;
    TRACE_ERROR("Failed to create idle timer", errorNumber);
    throw Base::ExceptionPosix(errorNumber);
  }
  mainThread.AddWatch(check.timer.Get(), EPOLLIN, Base::MakeCallback([](int fd, int /*events*/) {
                        std::uint64_t expirations = 0;
                        static_cast<void>(!read(fd, &expirations, sizeof expirations));
                        CheckIdleShutdown();
                      }));
  Schedule(GetPeriod());
}
