#include "daemon/signal_relay.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <utility>

#include "base/exception.h"
#include "process/shell_command.h"
#include "trace/trace.h"

TRACE_MODULE("main");

namespace {

// The write end of the pipe to the loop. Never closed: a signal may come until the process has
// ended.
std::atomic<int> relayFd{-1};
static_assert(std::atomic<int>::is_always_lock_free, "used in a signal handler");

void OnTermination(int signalNumber) {
  int const error = errno;
  // In the handler and not on the loop: the loop may already wait for the thread that runs a
  // command.
  Process::CancelShellCommands();
  auto const byte = static_cast<unsigned char>(signalNumber);
  // A full pipe already holds enough signals to end the daemon.
  static_cast<void>(!write(relayFd.load(std::memory_order_relaxed), &byte, sizeof byte));
  errno = error;
}

void OnBrokenPipe(int /*signalNumber*/) {}

void SetHandler(int signalNumber, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  if (sigaction(signalNumber, &action, nullptr) == -1) throw Base::ExceptionPosix(errno);
}

void ChangeMask(int how) {
  sigset_t termination;
  sigemptyset(&termination);
  sigaddset(&termination, SIGTERM);
  pthread_sigmask(how, &termination, nullptr);
}

void ReadSignals(int fd, Base::Callback<int> const& onSignal) {
  std::array<unsigned char, 64> numbers{};
  ssize_t const count = read(fd, numbers.data(), numbers.size());
  for (ssize_t i = 0; i < count; ++i) onSignal.Call(numbers[static_cast<std::size_t>(i)]);
}

}  // namespace

void BlockTermination() { ChangeMask(SIG_BLOCK); }

void SurviveBrokenPipes() { SetHandler(SIGPIPE, &OnBrokenPipe); }

void RelayTermination(Base::ThreadLinux& loop, Base::Callback<int> onSignal) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC) == -1) {
    int const errorNumber = errno;
    TRACE_ERROR("Failed to create signal pipe", errorNumber);
    throw Base::ExceptionPosix(errorNumber);
  }
  relayFd.store(ends[1]);
  loop.AddWatch(ends[0], EPOLLIN,
                Base::MakeCallback([onSignal = std::move(onSignal)](int fd, int /*events*/) {
                  ReadSignals(fd, onSignal);
                }));
  Process::AllowCancelOfShellCommands();
  SetHandler(SIGTERM, &OnTermination);
}

void UnblockTermination() { ChangeMask(SIG_UNBLOCK); }
