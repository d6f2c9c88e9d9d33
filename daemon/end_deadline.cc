#include "daemon/end_deadline.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "base/exception.h"
#include "trace/crash/signal_safe_line.h"
#include "trace/trace.h"

// The expiry is a signal and no task or thread: the thread that it interrupts may be the one that
// hangs, and a process that is short of memory may start no thread. Its handler calls only what is
// async-signal-safe (signal-safety(7)).

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr timespec endTime{30, 0};  // an orderly end with a sanitizer takes its time
#else
// Leaves the rest of the 2 seconds to the line and to the exit.
constexpr timespec endTime{1, 700'000'000};
#endif
// The timer goes on: the kernel may choose a thread that hangs for the first expiry, and it chooses
// another thread for the next one.
constexpr timespec retryTime{0, 50'000'000};

timer_t timer{};
std::atomic<bool> isStarted{false};
std::atomic<int> expiries{0};
std::atomic<char const*> stage{"start"};
static_assert(std::atomic<bool>::is_always_lock_free &&
                  std::atomic<char const*>::is_always_lock_free,
              "used in signal handlers");

int GetExpirySignal() { return SIGRTMAX - 1; }

void OnExpiry(int /*signalNumber*/) {
  // The line itself may hang; then a later expiry ends the process without it.
  if (expiries.fetch_add(1) == 0) {
    Trace::WriteSignalSafeLine("main", Trace::levelWarning, "Ended without waiting", "for",
                               stage.load(std::memory_order_relaxed));
  }
  _exit(0);
}

}  // namespace

void PrepareEndDeadline() {
  struct sigaction action {};
  action.sa_handler = &OnExpiry;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_NODEFER;
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = GetExpirySignal();
  if (sigaction(GetExpirySignal(), &action, nullptr) == -1 ||
      timer_create(CLOCK_MONOTONIC, &event, &timer) == -1) {
    throw Base::ExceptionPosix(errno);
  }
}

void StartEndDeadline() noexcept {
  if (isStarted.exchange(true)) return;
  itimerspec const setting{.it_interval = retryTime, .it_value = endTime};
  timer_settime(timer, 0, &setting, nullptr);
}

void SetEndStage(char const* name) noexcept { stage.store(name, std::memory_order_relaxed); }
