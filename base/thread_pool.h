#pragma once

#include "base/callback.h"
#include "base/shared.h"
#include "base/task_runner.h"
#include "base/thread.h"

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

// The process-wide pools, each made on first use with as many workers as there are processors, two
// at least. Their timers are on the process-wide GLib thread (base/glib_thread.h), which is started
// with the first pool. Both throw Exception "ThreadPool has been shutdown" once they have been.
//
// The general one shares idle workers with the process's other users of GLib pools. Its scheduled
// tasks run on the GLib thread itself, one at a time: they must not block, and one that schedules
// the next without a delay keeps everybody else from it.
Shared<ThreadPool> GetThreadPool();

// The exclusive one keeps its workers to itself, from the start, and runs its scheduled tasks on
// them.
Shared<ThreadPool> GetExclusiveThreadPool();

// Closes the process-wide pools, whose posted tasks run before that, then ends the process-wide
// threads; once: a second call does nothing. From the thread that runs `main`.
void ShutdownThreadPools();

// Queues a task on `thread` that stops it and then calls `completion`, if there is one.
void PostStop(Shared<Thread> const& thread, Callback<> completion = {});

}  // namespace Base
