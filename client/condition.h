#pragma once

#include <pthread.h>

#include <chrono>
#include <ctime>
#include <mutex>

// Lets threads wait for a change of what a mutex protects, with a deadline by the steady clock.
//
// std::condition_variable, std::future and std::timed_mutex need pthread_cond_clockwait(3) for such
// a deadline, and glibc has it since 2.30. This class runs with older versions, too. Without that
// function the standard library may wait by the system's clock, which somebody can set meanwhile.
class Condition {
 public:
  using Clock = std::chrono::steady_clock;
  using Lock = std::unique_lock<std::mutex>;

  Condition() {
    // None of these calls can fail on Linux.
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&_condition, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  Condition(Condition const&) = delete;
  Condition& operator=(Condition const&) = delete;
  ~Condition() { pthread_cond_destroy(&_condition); }

  void NotifyAll() noexcept { pthread_cond_broadcast(&_condition); }

  // Returns once `isTrue` holds, which is evaluated under the lock.
  template <typename Predicate>
  void Wait(Lock& lock, Predicate isTrue) {
    while (!isTrue()) pthread_cond_wait(&_condition, lock.mutex()->native_handle());
  }

  // The same with a deadline. Returns whether `isTrue` holds.
  template <typename Predicate>
  bool WaitUntil(Lock& lock, Clock::time_point deadline, Predicate isTrue) {
    while (!isTrue()) {
      if (Clock::now() >= deadline) return false;
      // The steady clock is CLOCK_MONOTONIC.
      auto const time =
          std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.time_since_epoch());
      auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
      timespec const until{.tv_sec = seconds.count(), .tv_nsec = (time - seconds).count()};
      pthread_cond_timedwait(&_condition, lock.mutex()->native_handle(), &until);
    }
    return true;
  }

 private:
  pthread_cond_t _condition;
};
