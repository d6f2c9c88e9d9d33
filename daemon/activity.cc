#include "daemon/activity.h"

#include <atomic>

namespace {

using std::chrono::steady_clock;
using std::chrono::system_clock;

// The IO thread writes them, the idle check on the main thread reads them. They order no other
// memory, and a time of one clock beside an older one of the other does no harm.
std::atomic<system_clock::time_point> lastSystemTime{system_clock::now()};
std::atomic<steady_clock::time_point> lastMonotonicTime{steady_clock::now()};
std::atomic<int> workCount{0};

}  // namespace

void StampActivity() {
  lastSystemTime.store(system_clock::now(), std::memory_order_relaxed);
  lastMonotonicTime.store(steady_clock::now(), std::memory_order_relaxed);
}

ActivityTime GetLastActivity() {
  return {.system = lastSystemTime.load(std::memory_order_relaxed),
          .monotonic = lastMonotonicTime.load(std::memory_order_relaxed)};
}

void BeginWork() { workCount.fetch_add(1, std::memory_order_relaxed); }

void EndWork() {
  StampActivity();
  workCount.fetch_sub(1, std::memory_order_release);
}

bool IsAtWork() { return workCount.load(std::memory_order_acquire) != 0; }
