#pragma once

#include <future>
#include <utility>

#include "base/callback.h"
#include "base/exception.h"
#include "base/thread.h"

namespace Base {

// Runs `function` on the thread of a loop and waits for its end: the way in for a thread that has
// to touch what belongs to the loop's. What the function throws arrives at the caller. Throws
// Exception "Thread stopped" when the loop ends without having run it. The loop must be running:
// one that does not run lets the caller wait until it does.
template <typename Function>
void RunAndWait(Thread& thread, Function function) {
  if (thread.IsCurrentThread()) {
    function();
    return;
  }
  std::packaged_task<void()> task(std::move(function));
  std::future<void> done = task.get_future();
  thread.PostTask(MakeCallback([task = std::move(task)]() mutable { task(); }));
  try {
    done.get();
  } catch (std::future_error const&) {
    throw Exception("Thread stopped");
  }
}

}  // namespace Base
