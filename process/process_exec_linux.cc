#include "process/process_exec_linux.h"

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <string>
#include <system_error>

#include "base/text.h"
#include "trace/trace.h"

TRACE_MODULE("process_exec_linux");

namespace Process {

namespace {

// A child starts with the signal mask of the thread that makes it. This process holds signals back
// on its threads, which no program that it runs would expect.
FILE* OpenWithoutBlockedSignals(std::string const& commandLine) {
  sigset_t none;
  sigset_t blocked;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, &blocked);
  FILE* const pipe = popen(commandLine.c_str(), "re");  // NOLINT(cert-env33-c): its purpose
  int const error = errno;
  pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
  errno = error;
  return pipe;
}

}  // namespace

int ExecuteSyncCommand(std::string const& commandLine, std::string& output) {
  output.clear();
  FILE* const pipe = OpenWithoutBlockedSignals(commandLine);
  if (pipe == nullptr) {
    int const errorCode = errno;
    std::string const errorMessage = std::generic_category().message(errorCode);
    TRACE_VERBOSE("Sync command failed", commandLine, errorCode, errorMessage);
    return 1;
  }
  std::array<char, 256> piece;
  while (fgets(piece.data(), static_cast<int>(piece.size()), pipe) != nullptr) {
    output.append(piece.data());
  }
  int const status = pclose(pipe);
  // For a command that a signal ended these bits are 0: kept as it is.
  int const exitCode = WEXITSTATUS(status);
  output = std::string(Base::TrimWhiteSpace(output));
  TRACE_VERBOSE("Sync command executed", commandLine, status, exitCode, output);
  return exitCode;
}

}  // namespace Process
