#pragma once

#include <atomic>
#include <exception>
#include <future>
#include <memory>
#include <utility>

#include "base/callback.h"
#include "base/exception.h"
#include "base/loop/thread.h"

namespace Base {

// Runs `function` on the thread of a loop and returns when it has run: for another thread that
// needs what only the loop's thread may touch. On the loop's own thread it is a plain call. Throws
// what `function` throws, or Exception "Thread stopped" when the loop has ended or ends without
// running it. A loop that has never run blocks the caller until it does.
template <typename Function>
void RunAndWait(Thread& thread, Function function) {
  if (thread.IsCurrentThread()) {
    function();
    return;
  }
  bool ran = false;
  std::exception_ptr error;  // the other thread refers to it no more when this one destroys it
  // Who sets it first decides: the task runs, or the caller gives up, and a task that is left in
  // the queue refers to nothing of the caller.
  auto const isDecided = std::make_shared<std::atomic<bool>>(false);
  std::promise<void> promise;
  std::future<void> const end = promise.get_future();
  std::shared_ptr<void> onEnd(
      nullptr, [promise = std::move(promise)](void*) mutable { promise.set_value(); });
  thread.PostTask(MakeCallback([&function, &ran, &error, isDecided, onEnd = std::move(onEnd)] {
    if (isDecided->exchange(true)) return;
    ran = true;
    try {
      function();
    } catch (...) {
      error = std::current_exception();
    }
  }));
  // An ended loop keeps the task for its next run. The loop ends first and discards its tasks then,
  // so a loop that has not ended by now either runs the task or discards it.
  if (!thread.HasEnded() || isDecided->exchange(true)) {
    end.wait();  // until the task has been destroyed, whether the loop ran or discarded it
  }
  if (!ran) throw Exception("Thread stopped");
  if (error) std::rethrow_exception(error);
}

}  // namespace Base
