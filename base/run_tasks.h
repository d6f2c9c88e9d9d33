#pragma once

#include <chrono>
#include <exception>

#include "base/callback.h"
#include "base/exception.h"
#include "base/task_store.h"

// How task runners run tasks: what a task throws ends that task only.

namespace Base {

// Runs `task`; hands what it throws to `onError`. Returns whether it threw nothing.
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

// Runs the scheduled tasks that are due, then the posted ones until there are none left, those that
// are posted meanwhile too.
template <typename OnScheduledError, typename OnPostedError>
void RunTasks(ScheduledTaskStore& scheduledTasks, TaskQueue& tasks,
              OnScheduledError onScheduledError, OnPostedError onPostedError) {
  while (Task const task = scheduledTasks.TakeDue(std::chrono::system_clock::now())) {
    RunCaught(task, onScheduledError);
  }
  while (Task const task = tasks.Pop()) RunCaught(task, onPostedError);
}

}  // namespace Base
