#include "base/loop/task_store.h"

#include <algorithm>
#include <utility>

namespace Base {

namespace {

// A delay beyond the clock's range ends at its last time and does not wrap around into the past.
ScheduledTaskStore::TimePoint AddMilliseconds(ScheduledTaskStore::TimePoint now,
                                              std::int64_t delayMs) {
  using std::chrono::milliseconds;
  std::int64_t const longest =
      std::chrono::floor<milliseconds>(ScheduledTaskStore::TimePoint::max() - now).count();
  return now + milliseconds(std::clamp(delayMs, -longest, longest));
}

}  // namespace

void TaskQueue::Push(Task task) {
  if (!task) return;  // `Pop` returns an empty task for an empty queue
  std::lock_guard const lock(_mutex);
  _tasks.push_back(std::move(task));
  _isEmpty.store(false, std::memory_order_release);
}

Task TaskQueue::Pop() {
  std::lock_guard const lock(_mutex);
  if (_tasks.empty()) return {};
  Task task = std::move(_tasks.front());
  _tasks.pop_front();
  _isEmpty.store(_tasks.empty(), std::memory_order_release);
  return task;
}

std::deque<Task> TaskQueue::TakeAll() {
  std::lock_guard const lock(_mutex);
  _isEmpty.store(true, std::memory_order_release);
  return std::exchange(_tasks, {});
}

void TaskQueue::MoveTo(std::deque<Task>& tasks) noexcept {
  std::lock_guard const lock(_mutex);
  _tasks.swap(tasks);
  _isEmpty.store(true, std::memory_order_release);
}

void ScheduledTaskStore::Insert(std::int64_t delayMs, Task task) {
  if (!task) return;
  TimePoint const wakeTime = AddMilliseconds(std::chrono::system_clock::now(), delayMs);
  std::lock_guard const lock(_mutex);
  auto const later = std::ranges::upper_bound(_entries, wakeTime, {}, &Entry::wakeTime);
  _entries.insert(later, {std::move(task), wakeTime});
  _isEmpty.store(false, std::memory_order_release);
}

std::optional<ScheduledTaskStore::TimePoint> ScheduledTaskStore::GetEarliestWakeTime() {
  std::lock_guard const lock(_mutex);
  if (_entries.empty()) return {};
  return _entries.front().wakeTime;
}

Task ScheduledTaskStore::TakeDue(TimePoint now) {
  std::lock_guard const lock(_mutex);
  if (_entries.empty() || _entries.front().wakeTime > now) return {};
  Task task = std::move(_entries.front().task);
  _entries.erase(_entries.begin());
  _isEmpty.store(_entries.empty(), std::memory_order_release);
  return task;
}

std::vector<ScheduledTaskStore::Entry> ScheduledTaskStore::TakeAll() {
  std::lock_guard const lock(_mutex);
  _isEmpty.store(true, std::memory_order_release);
  return std::exchange(_entries, {});
}

}  // namespace Base
