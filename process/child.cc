#include "process/child.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

// The child of a process with threads has only the one that forked, and the locks of all: whoever
// held one, of the allocator, of the trace log, will never give it back. Until its exec it calls
// only what is async-signal-safe (signal-safety(7)), and logs nothing. execvp is not on that list,
// because some libraries allocate while they search PATH; glibc's searches on the stack.

namespace Process {

namespace {

// A handler is gone with the exec, an ignored signal would stay ignored.
void RestoreSignals() {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  // Those that cannot be changed are the kernel's and the library's own.
  for (int number = 1; number <= SIGRTMAX; ++number) sigaction(number, &action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void RunChild(char* const* argv, ChildDescriptors const& descriptors) {
  RestoreSignals();
  // The copies are not close-on-exec.
  if (dup2(descriptors.input, STDIN_FILENO) != -1 &&
      dup2(descriptors.output, STDOUT_FILENO) != -1 &&
      dup2(descriptors.error, STDERR_FILENO) != -1) {
    execvp(argv[0], argv);
  }
  int const error = errno;
  // The parent is there to read it, or nobody is.
  static_cast<void>(!write(descriptors.execStatus, &error, sizeof error));
  _exit(error);
}

}  // namespace

pid_t StartChild(char* const* argv, ChildDescriptors const& descriptors) {
  // A signal that found the child before its exec would run this process's handler there, and act
  // on what they share: a pipe to this process's loop, for one.
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
