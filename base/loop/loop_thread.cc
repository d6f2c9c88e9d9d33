#include "base/loop/loop_thread.h"

#include <chrono>
#include <exception>
#include <utility>

#include "base/exception.h"
#include "base/loop/run_caught.h"

namespace Base {

LoopThread::LoopThread(Shared<Trace::Log> log) : _log(std::move(log)) {}

void LoopThread::Start() {
  Stop();
  _stopping = false;
  bool const hadEnded = _hasEnded.exchange(false);
  if (int const error = _thread.Start([self = Shared(this)] { self->RunHere(); })) {
    _hasEnded = hadEnded;
    TRACE_TO(*_log, Trace::levelError, "Failed to start thread", this, error);
    throw ExceptionPosix(error);
  }
}

void LoopThread::Stop() {
  _stopping = true;
  Wake();
  _thread.End();
}

bool LoopThread::IsCurrentThread() const {
  return _loopThreadId.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

void LoopThread::Run() {
  Stop();
  _stopping = false;
  _hasEnded = false;
  RunHere();
}

void LoopThread::RunHere() {
  Shared const self(this);
  TRACE_TO(*_log, Trace::levelVerbose, "Thread entry point started.", this);
  {
    CurrentScope const current{Shared<Thread>(this)};
    _loopThreadId = std::this_thread::get_id();
    RunLoop();
    _loopThreadId = std::thread::id();
  }
  TRACE_TO(*_log, Trace::levelVerbose, "Thread entry point stopped.", this);
}

// The loop's thread posts most tasks itself, and needs no lock for them. It first takes what other
// threads have posted, so tasks run in the order in which they were posted.
void LoopThread::Enqueue(Task task) {
  if (!IsCurrentThread()) {
    _posted.Push(std::move(task));
    return;
  }
  if (!task) return;
  while (!_posted.IsEmpty()) {
    _tasks.emplace_back();  // before `Pop`: it may throw, and must not lose a task
    _tasks.back() = _posted.Pop();
  }
  _tasks.push_back(std::move(task));
}

Task LoopThread::TakeTask() noexcept {
  if (_tasks.empty() && !_posted.IsEmpty()) _posted.MoveTo(_tasks);
  if (_tasks.empty()) return {};
  Task task = std::move(_tasks.front());
  _tasks.pop_front();
  return task;
}

void LoopThread::Schedule(std::int64_t delayMs, Task task) {
  _scheduledTasks.Insert(delayMs, std::move(task));
}

std::optional<ScheduledTaskStore::TimePoint> LoopThread::GetEarliestWakeTime() {
  if (_scheduledTasks.IsEmpty()) return {};
  return _scheduledTasks.GetEarliestWakeTime();
}

void LoopThread::RunTasks() {
  while (!_scheduledTasks.IsEmpty()) {
    Task const task = _scheduledTasks.TakeDue(std::chrono::system_clock::now());
    if (!task) break;
    RunCaught(task, [this](std::exception const& err) {
      TRACE_TO(*_log, Trace::levelError, "Thread exception thrown whilst processing scheduled task",
               this, err);
    });
  }
  while (Task const task = TakeTask()) {
    RunCaught(task, [this](std::exception const& err) {
      TRACE_TO(*_log, Trace::levelError, "Thread exception thrown whilst processing task", this,
               err);
    });
  }
}

bool LoopThread::DiscardTasks() {
  _hasEnded = true;  // first: see RunAndWait
  bool wereAny = false;
  // One by one, which needs no memory.
  while (!_tasks.empty()) {
    Task const task = std::move(_tasks.front());
    _tasks.pop_front();
    wereAny = true;
  }
  while (_posted.Pop()) wereAny = true;
  return !_scheduledTasks.TakeAll().empty() || wereAny;
}

}  // namespace Base
