// What happens when a thread crashes, in this order:
//   1. The kernel runs `OnSignal` on the thread's crash stack, so that an overflow of the thread's
//      own stack can be reported. All signals but the faults are blocked.
//   2. The first thread to crash becomes the reporting thread, limits the time of the report by
//      SIGALRM, and writes the report (crash_report.cc).
//   3. The thread queues the same signal to itself, with the default action and every signal
//      blocked.
//   4. `OnSignal` returns, the kernel restores the thread's signal mask, and the pending signal
//      ends the process.
//
// Why step 3 queues the signal and does not end the process at once: the parent sees the exit
// status, and a core shows the thread where the signal hit it, as if there were no handler.
//
// Other ways through `OnSignal`:
//   - Another thread crashes during the report. It waits, and the first thread's signal ends it.
//   - The reporting thread gets a fault signal that somebody has sent. It ignores that signal.
//   - The report itself crashes, for example on a destroyed stack. The process ends by the
//     signal of the first crash; the lines so far are written.
//   - A sink blocks the report until SIGALRM. The process ends in the same way.
//
// Anything may be broken at this time: the heap, a lock that the crashed thread holds, its stack.
// So the handler and the report take no lock, allocate nothing, and call only functions that
// signal-safety(7) allows. The unwinder is the exception: with glibc 2.35 and GCC 12 or later it
// takes no lock either.

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
#include "trace/thread_id.h"

namespace Trace {

namespace {

// The signals that the kernel sends for an instruction of the thread itself. The handler does not
// block them: a blocked fault would end the process at once, by another signal than the reported
// one. It blocks SIGABRT, which others may send; abort(3) unblocks SIGABRT.
constexpr std::array faults{SIGFPE, SIGSEGV, SIGILL, SIGBUS, SIGTRAP};

// A sink can block the report, for example a full pipe that could not be made non-blocking.
constexpr unsigned patienceSeconds = 5;

std::atomic<pid_t> reportingThread{0};
static_assert(std::atomic<pid_t>::is_always_lock_free, "used in a signal handler");

siginfo_t reported;  // the reporting thread's

// Queues the signal, with the siginfo_t it came with, to end the process by its default action. It
// is blocked, so it stays pending until the handler returns.
void Resend(siginfo_t& info) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(info.si_signo, &action, nullptr);
  // No known kernel fails here. If one does, the faulting instruction runs again and abort(3)
  // continues, so the process ends all the same.
  syscall(SYS_rt_tgsigqueueinfo, getpid(), GetThreadId(), info.si_signo, &info);
}

void Unblock(int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// Ends the process by the reported signal without returning from the handler.
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
  pid_t const thread = GetThreadId();
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
    // The first thread's signal ends this wait.
    poll(nullptr, 0, patienceSeconds * 1000);
  }
  Resend(*info);
  // A signal that came during sigsuspend(2) or ppoll(2) is blocked again after that call.
  sigdelset(&static_cast<ucontext_t*>(context)->uc_sigmask, signal);
}

void Install(int signal) {
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
    for (int const fault : faults) Install(fault);
    Install(SIGABRT);
  });
}

}  // namespace Trace
