#include "daemon/activity.h"

#include <atomic>

namespace {

using Clock = std::chrono::system_clock;

// The IO thread writes it, the idle check on the main thread reads it. It orders no other memory.
std::atomic<Clock::time_point> lastReadTime{Clock::now()};

}  // namespace

void StampLastRead() { lastReadTime.store(Clock::now(), std::memory_order_relaxed); }

Clock::time_point GetLastReadTime() { return lastReadTime.load(std::memory_order_relaxed); }
