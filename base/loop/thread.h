#pragma once

#include "base/loop/task_runner.h"
#include "base/shared.h"

namespace Base {

// A task runner that is one thread with a loop: its tasks run one at a time.
class Thread : public TaskRunner {
 public:
  // Runs the loop on a new thread, after `Stop`. Throws ExceptionPosix. Not before a loop that
  // stopped itself has left.
  virtual void Start() = 0;

  // Ends the loop: it finishes the round that it is in and leaves. Waits for a started thread, but
  // never for the calling one, which goes on until its loop leaves; of several calls at once only
  // one waits. Safe in any state: a loop that never ran, has ended, or runs in place.
  virtual void Stop() = 0;

  // Whether the caller runs on this loop's thread, while it runs.
  virtual bool IsCurrentThread() const = 0;

  // Runs the loop on the calling thread until it is stopped. A `Stop` from before is forgotten.
  // Inside a task of another loop that one waits for its end.
  virtual void Run() = 0;

  // The loop that runs on the calling thread, the innermost one; empty where there is none.
  static Shared<Thread> GetCurrent();

 protected:
  // Makes `thread` the calling thread's current one for as long as the scope lives, and has the
  // calling thread's crashes reported.
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
