#pragma once

#include <exception>

#include "base/callback.h"
#include "base/exception.h"

namespace Base {

// Runs `task` and calls `onError` with what the task throws, if anything. Returns true when the
// task threw nothing. Every task runner runs its tasks by this function, so no exception ends a
// thread.
template <typename OnError>
bool RunCaught(Task const& task, OnError onError) {
  try {
    task->Call();
    return true;
  } catch (std::exception const& err) {
    onError(err);
  } catch (...) {
    onError(Exception("Unknown exception"));
  }
  return false;
}

}  // namespace Base
