#pragma once

#include <exception>

#include "base/callback.h"

namespace Base {

// What a task threw that is no std::exception. It needs no memory, of which there may be none left.
class UnknownException final : public std::exception {
 public:
  char const* what() const noexcept override { return "Unknown exception"; }
};

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
    onError(UnknownException());
  }
  return false;
}

}  // namespace Base
