#include "daemon/activity.h"

#include <atomic>

namespace {

using Clock = std::chrono::system_clock;

// Written by the IO thread, read by the main thread's idle check; nothing else hangs on it.
std::atomic<Clock::time_point> lastReadTime{Clock::now()};

}  // namespace

void StampLastRead() { lastReadTime.store(Clock::now(), std::memory_order_relaxed); }

Clock::time_point GetLastReadTime() { return lastReadTime.load(std::memory_order_relaxed); }
