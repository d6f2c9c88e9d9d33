#pragma once

#include "base/callback.h"
#include "base/loop/task_runner.h"
#include "base/loop/thread.h"
#include "base/shared.h"

namespace Base {

// A task runner with several threads: its tasks start in posting order and may run at the same
// time. Post what blocks or computes for long here, not to a loop.
class ThreadPool : public TaskRunner {
 public:
  // Ends the pool; from then on posting throws Exception "ThreadPool Closed". Returns when none of
  // its tasks runs any more: what has been posted is run before, what is still scheduled is let go
  // of.
  //
  // From inside one of the pool's own tasks, which it cannot wait for, it returns at once: what has
  // been posted runs later, or with `cancelTasks` is let go of. Nothing runs later than the end of
  // another call from outside.
  virtual void Close(bool cancelTasks) = 0;
};

// Closes the process-wide pools, whose posted tasks run before that, then ends the process-wide
// threads; once: a second call does nothing. From the thread that runs `main`.
void ShutdownThreadPools();

// Queues a task on `thread` that stops it and then calls `completion`, if there is one.
void PostStop(Shared<Thread> const& thread, Callback<> completion = {});

}  // namespace Base
