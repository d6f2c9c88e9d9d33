#pragma once

#include "base/loop/task_runner.h"
#include "base/shared.h"

namespace Base {

// A task runner that is one thread with a loop: its tasks run one at a time, on that thread. In
// each round the loop first runs the scheduled tasks that are due, then the posted tasks until
// there are none left, those that are posted meanwhile included.
//
// When the loop ends, it discards its tasks without running them, so that what they hold does not
// outlive the loop. It keeps tasks that are posted later for its next run.
class Thread : public TaskRunner {
 public:
  // Stops the loop as `Stop` does, then runs it on a new thread. A loop that one of its own tasks
  // has stopped must have ended before. Throws ExceptionPosix when no thread can be started.
  virtual void Start() = 0;

  // Ends the loop after its current round and waits until a started thread has ended. Called on
  // that thread, it returns at once, and the loop ends after the round. Of several concurrent calls
  // only one waits. Does nothing for a loop that does not run; does not wait for a loop in `Run`.
  virtual void Stop() = 0;

  // Whether the calling thread is the one on which this loop runs.
  virtual bool IsCurrentThread() const = 0;

  // Stops the loop as `Stop` does, then runs it on the calling thread until another `Stop`. Called
  // inside another loop's task, it blocks that loop until this one ends.
  virtual void Run() = 0;

  // Whether the loop has ended, or begins to discard its tasks: it runs no task before the next
  // `Start` or `Run`. False for a loop that has never run.
  virtual bool HasEnded() const = 0;

  // The loop that runs on the calling thread; empty when there is none. Where one loop runs inside
  // a task of another, it is the inner one.
  static Shared<Thread> GetCurrent();

 protected:
  // While the scope lives, `GetCurrent` returns `thread` on the calling thread. Also gives the
  // calling thread the stack that the crash handler needs.
  class CurrentScope {
   public:
    explicit CurrentScope(Shared<Thread> thread);
    CurrentScope(CurrentScope const&) = delete;
    CurrentScope& operator=(CurrentScope const&) = delete;
    ~CurrentScope();

   private:
    Thread* const _outer;
  };
};

}  // namespace Base
