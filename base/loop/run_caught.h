#pragma once

#include <exception>

#include "base/callback.h"
#include "base/exception.h"

namespace Base {

// How task runners run tasks: what a task throws ends that task only. Runs `task`; hands what it
// throws to `onError`. Returns whether it threw nothing.
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
