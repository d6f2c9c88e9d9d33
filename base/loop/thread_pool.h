#pragma once

#include "base/callback.h"
#include "base/loop/task_runner.h"
#include "base/loop/thread.h"
#include "base/shared.h"

namespace Base {

// A task runner with several threads: its tasks start in posting order and may run at the same
// time. Post work that blocks or computes for long to a pool and not to a loop.
//
// Lifetime: posted and scheduled tasks hold the pool, so its last user may release it before they
//           have run.
// Errors:   posting throws Exception "ThreadPool Closed" after `Close`, "ThreadPool Failed" when no
//           thread can be started.
class ThreadPool : public TaskRunner {
 public:
  // Closes the pool: runs the tasks that have been posted, discards those that are still scheduled,
  // and returns when no task of the pool runs any more. `cancelTasks` changes nothing here, as no
  // posted task is left. A second call only waits.
  //
  // Called inside one of the pool's own tasks, it does not wait, for that task would wait for
  // itself. The posted tasks run later, or are discarded with `cancelTasks`. A later `Close` from
  // outside still waits for all of them.
  virtual void Close(bool cancelTasks) = 0;
};

// Closes the process-wide pools, which runs their posted tasks, then stops the process-wide
// threads. A second call does nothing. Call it on the thread that runs `main`.
void ShutdownThreadPools();

// Posts a task to `thread` that stops the thread and then calls `completion`, if there is one.
void PostStop(Shared<Thread> const& thread, Callback<> completion = {});

}  // namespace Base
