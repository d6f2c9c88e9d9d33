#pragma once

#include <cstdint>

#include "base/callback.h"
#include "base/shared.h"

namespace Base {

// Runs tasks later, on threads of its own. May be called from any thread.
class TaskRunner : public Shareable {
 public:
  // Queues `task`. What it throws is caught and logged by the runner. An empty one is let go of,
  // here and below.
  virtual void PostTask(Task task) = 0;

  // Queues `task` to run once `delayMs` milliseconds have passed on the system clock; tasks that
  // are due at the same time run in posting order. A negative delay is due at once.
  virtual void PostScheduledTask(std::int64_t delayMs, Task task) = 0;
};

}  // namespace Base
