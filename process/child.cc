#include "process/child.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

// fork(2) copies only the calling thread, but every lock in the state in which it is: a lock that
// another thread holds, of the allocator or of the trace log, is never released in the child. So
// the child calls only async-signal-safe functions (signal-safety(7)) until its exec, and logs
// nothing. execvp is not on that list because some libraries allocate memory while they search
// PATH; glibc searches on the stack.

namespace Process {

namespace {

// exec resets a signal that has a handler, but an ignored or blocked signal stays so in the
// program.
void RestoreSignals() {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  // sigaction fails for SIGKILL, SIGSTOP and the signals that glibc keeps for itself.
  for (int number = 1; number <= SIGRTMAX; ++number) sigaction(number, &action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void RunChild(char* const* argv, ChildDescriptors const& descriptors) {
  RestoreSignals();
  // dup2 makes copies without the close-on-exec bit.
  if (dup2(descriptors.input, STDIN_FILENO) != -1 &&
      dup2(descriptors.output, STDOUT_FILENO) != -1 &&
      dup2(descriptors.error, STDERR_FILENO) != -1) {
    execvp(argv[0], argv);
  }
  int const error = errno;
  // A failure is ignored: only the parent reads this, and then the parent has gone.
  static_cast<void>(!write(descriptors.execStatus, &error, sizeof error));
  _exit(error);
}

}  // namespace

pid_t StartChild(char* const* argv, ChildDescriptors const& descriptors) {
  // All signals are blocked from before the fork until the child has reset its handlers. Otherwise
  // a signal could run this process's handler in the child, which would write into a descriptor
  // that both share, such as the one that wakes this process's loop.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pid_t const pid = fork();
  if (pid == 0) RunChild(argv, descriptors);
  int const error = errno;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return pid;
}

}  // namespace Process
