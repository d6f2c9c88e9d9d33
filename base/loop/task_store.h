#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "base/callback.h"

// Where runners keep their tasks. Each store has a lock of its own, held for one push, pop or peek;
// no task is run or destroyed under it.

namespace Base {

// Tasks in posting order.
class TaskQueue {
 public:
  void Push(Task task);

  // The front task; empty when there is none.
  Task Pop();

  std::deque<Task> TakeAll();

 private:
  std::mutex _mutex;
  std::deque<Task> _tasks;
};

// Tasks in the order of their wake times, those of one wake time in posting order.
class ScheduledTaskStore {
 public:
  using TimePoint = std::chrono::system_clock::time_point;

  struct Entry {
    Task task;
    TimePoint wakeTime;
  };

  // Sets the wake time `delayMs` milliseconds from now.
  void Insert(std::int64_t delayMs, Task task);

  // The earliest wake time, if there is one.
  std::optional<TimePoint> GetEarliestWakeTime();

  // The first task, if its wake time is not later than `now`; else empty.
  Task TakeDue(TimePoint now);

  std::vector<Entry> TakeAll();

 private:
  std::mutex _mutex;
  std::vector<Entry> _entries;
};

}  // namespace Base
