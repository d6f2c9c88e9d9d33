#pragma once

#include <functional>
#include <mutex>
#include <thread>

namespace Base {

// The thread that a loop was started on. It may be ended from any thread, its own included, and
// from several at once.
class ThreadHandle {
 public:
  ThreadHandle() = default;
  ThreadHandle(ThreadHandle const&) = delete;
  ThreadHandle& operator=(ThreadHandle const&) = delete;

  // A thread that let itself go before `Start` had stored it is still here.
  ~ThreadHandle() { End(); }

  // Runs `entry` on a new thread. Returns 0, or the errno when there can be none. Only after `End`.
  int Start(std::function<void()> entry);

  // Waits for the thread's end; on the thread itself, lets it go on alone. Whoever comes second, or
  // where there is no thread, does not wait.
  void End();

 private:
  std::mutex _mutex;
  std::thread _thread;  // under _mutex; empty while not started
};

}  // namespace Base
