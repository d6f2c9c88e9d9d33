#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "base/callback.h"

// The queues of the task runners. Each has a lock of its own and holds it for one push, pop or
// peek; no task runs and no task is destroyed under that lock. Both ignore empty tasks.
//
// Threads: any. `IsEmpty` takes no lock. It sees a task whose push has returned before, on this
//          thread or on one that this thread has synchronised with.

namespace Base {

// Tasks in posting order.
class TaskQueue {
 public:
  void Push(Task task);

  // Takes the front task; empty when there is none.
  Task Pop();

  std::deque<Task> TakeAll();

  // Moves all tasks to `tasks`, which is empty. Needs no memory.
  void MoveTo(std::deque<Task>& tasks) noexcept;

  bool IsEmpty() const { return _isEmpty.load(std::memory_order_acquire); }

 private:
  std::mutex _mutex;
  std::deque<Task> _tasks;
  std::atomic<bool> _isEmpty{true};
};

// Tasks in the order of their wake times; tasks with the same wake time are in posting order.
class ScheduledTaskStore {
 public:
  using TimePoint = std::chrono::system_clock::time_point;

  struct Entry {
    Task task;
    TimePoint wakeTime;
  };

  // Adds `task` with a wake time `delayMs` milliseconds from now.
  void Insert(std::int64_t delayMs, Task task);

  // Returns the earliest wake time; empty when there is no task.
  std::optional<TimePoint> GetEarliestWakeTime();

  // Takes the first task when its wake time is not later than `now`; else returns an empty task.
  Task TakeDue(TimePoint now);

  std::vector<Entry> TakeAll();

  bool IsEmpty() const { return _isEmpty.load(std::memory_order_acquire); }

 private:
  std::mutex _mutex;
  std::vector<Entry> _entries;
  std::atomic<bool> _isEmpty{true};
};

}  // namespace Base
