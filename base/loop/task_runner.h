#pragma once

#include <cstdint>

#include "base/callback.h"
#include "base/shared.h"

namespace Base {

// Runs tasks later, on threads of its own: never inside the call that posts them.
//
// Threads:  any.
// Lifetime: the runner holds a task until it has run the task or discards it. A runner that ends
//           discards tasks; its own contract says which.
// Errors:   the runner catches and logs what a task throws, and runs the next one.
class TaskRunner : public Shareable {
 public:
  // Queues `task`. Tasks start in posting order, each exactly once. Ignores an empty task.
  virtual void PostTask(Task task) = 0;

  // Queues `task` to run once, when `delayMs` milliseconds have passed on the system clock. Tasks
  // that are due at the same time run in posting order. A task with a negative delay is due at
  // once. Ignores an empty task.
  virtual void PostScheduledTask(std::int64_t delayMs, Task task) = 0;
};

}  // namespace Base
