#pragma once

#include <exception>
#include <future>
#include <memory>
#include <utility>

#include "base/callback.h"
#include "base/exception.h"
#include "base/loop/thread.h"

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
  bool ran = false;
  std::exception_ptr error;  // destroyed by this thread alone: nothing else refers to it by then
  std::promise<void> promise;
  std::future<void> const end = promise.get_future();
  std::shared_ptr<void> onEnd(
      nullptr, [promise = std::move(promise)](void*) mutable { promise.set_value(); });
  thread.PostTask(MakeCallback([&function, &ran, &error, onEnd = std::move(onEnd)] {
    ran = true;
    try {
      function();
    } catch (...) {
      error = std::current_exception();
    }
  }));
  end.wait();  // the task has been run, or dropped
  if (!ran) throw Exception("Thread stopped");
  if (error) std::rethrow_exception(error);
}

}  // namespace Base
