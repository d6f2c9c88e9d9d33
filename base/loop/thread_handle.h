#pragma once

#include <functional>
#include <mutex>
#include <thread>

namespace Base {

// The thread on which a loop was started. Any thread may call `End`, the started one included, and
// several may do so at once.
class ThreadHandle {
 public:
  ThreadHandle() = default;
  ThreadHandle(ThreadHandle const&) = delete;
  ThreadHandle& operator=(ThreadHandle const&) = delete;

  // A thread that called `End` before `Start` had stored it is still here.
  ~ThreadHandle() { End(); }

  // Runs `entry` on a new thread. Returns 0, or the errno when no thread can be started. A handle
  // that has been started must be ended first.
  int Start(std::function<void()> entry);

  // Waits for the thread's end; called on the thread itself, detaches it instead. Returns at once
  // when there is no thread or another call already waits.
  void End();

 private:
  std::mutex _mutex;
  std::thread _thread;  // under _mutex; empty while not started
};

}  // namespace Base
