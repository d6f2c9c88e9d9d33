#include "trace/crash/crash_handler.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <mutex>

#include "trace/crash/crash_report.h"
#include "trace/crash/crash_stack.h"

namespace Trace {

namespace {

// A thread reports one crash only, and the kernel sends these for what the thread itself does: they
// stay open in the handler, else a fault in it would end the process as another signal than the
// reported one. SIGABRT is blocked there, because somebody else may send it; abort(3) unblocks it.
constexpr std::array faults{SIGFPE, SIGSEGV, SIGILL, SIGBUS};

// For a report that a sink holds up, such as a full pipe that could not be made non-blocking.
constexpr unsigned patienceSeconds = 5;

std::atomic<pid_t> reportingThread{0};
static_assert(std::atomic<pid_t>::is_always_lock_free, "used in a signal handler");

siginfo_t reported;  // the reporting thread's

// Has the signal, as it came, end the process with its default action. It is blocked, and pending
// until the handler returns: it then meets the thread where it was hit, and a core shows that.
void Resend(siginfo_t& info) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(info.si_signo, &action, nullptr);
  // Where it fails, which no known kernel lets it, a fault repeats itself and abort(3) goes on.
  syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), info.si_signo, &info);
}

void Unblock(int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// Ends the process as the reported signal does, from where no return leads back to it.
[[noreturn]] void EndAsReported() {
  Resend(reported);
  Unblock(reported.si_signo);
  _exit(128 + reported.si_signo);
}

void LimitReport() {
  struct sigaction action {};
  action.sa_handler = [](int) { EndAsReported(); };
  sigaction(SIGALRM, &action, nullptr);
  Unblock(SIGALRM);
  alarm(patienceSeconds);
}

void OnSignal(int signal, siginfo_t* info, void* context) {
  pid_t const thread = gettid();
  pid_t reporter = 0;
  if (reportingThread.compare_exchange_strong(reporter, thread)) {
    reported = *info;
    LimitReport();
    ReportCrash(*info, context);
  } else if (reporter == thread) {
    bool const wasSent = info->si_code <= 0 && signal != SIGABRT;
    if (wasSent) return;
    EndAsReported();  // the report has crashed
  } else {
    // Ended by the first thread's signal.
    poll(nullptr, 0, patienceSeconds * 1000);
  }
  Resend(*info);
  // Where the signal came in a ppoll(2), say, it may be blocked again after it.
  sigdelset(&static_cast<ucontext_t*>(context)->uc_sigmask, signal);
}

void Take(int signal) {
  struct sigaction action {};
  if (sigaction(signal, nullptr, &action) == -1 || action.sa_handler != SIG_DFL) return;
  action.sa_sigaction = &OnSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  sigfillset(&action.sa_mask);
  for (int const fault : faults) sigdelset(&action.sa_mask, fault);
  sigaction(signal, &action, nullptr);
}

}  // namespace

void InstallCrashHandler() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    PrepareCrashReport();
    EnsureCrashStack();
    for (int const fault : faults) Take(fault);
    Take(SIGABRT);
  });
}

}  // namespace Trace
