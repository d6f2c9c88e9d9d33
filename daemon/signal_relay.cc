#include "daemon/signal_relay.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <utility>

#include "base/exception.h"
#include "daemon/end_deadline.h"
#include "process/shell_command.h"
#include "trace/trace.h"

TRACE_MODULE("main");

namespace {

constexpr std::array terminationSignals{SIGTERM, SIGINT, SIGHUP};

// The pipe to the loop. Never closed: a signal may come until the process has ended.
std::atomic<int> relayReadFd{-1};
std::atomic<int> relayWriteFd{-1};
static_assert(std::atomic<int>::is_always_lock_free, "used in a signal handler");

void OnTermination(int signalNumber) {
  int const error = errno;
  StartEndDeadline();
  // In the handler and not on the loop: the loop may already wait for the thread that runs a
  // command.
  Process::CancelShellCommands();
  auto const byte = static_cast<unsigned char>(signalNumber);
  // A full pipe already holds enough signals to end the daemon.
  static_cast<void>(!write(relayWriteFd.load(std::memory_order_relaxed), &byte, sizeof byte));
  errno = error;
}

void OnBrokenPipe(int /*signalNumber*/) {}

void SetHandler(int signalNumber, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  if (sigaction(signalNumber, &action, nullptr) == -1) throw Base::ExceptionPosix(errno);
}

bool IsIgnored(int signalNumber) {
  struct sigaction action {};
  return sigaction(signalNumber, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void ReadSignals(int fd, Base::Callback<int> const& onSignal) {
  std::array<unsigned char, 64> numbers{};
  ssize_t const count = read(fd, numbers.data(), numbers.size());
  for (ssize_t i = 0; i < count; ++i) onSignal.Call(numbers[static_cast<std::size_t>(i)]);
}

}  // namespace

void CatchTermination() {
  PrepareEndDeadline();
  Process::AllowCancelOfShellCommands();
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC) == -1) throw Base::ExceptionPosix(errno);
  relayReadFd = ends[0];
  relayWriteFd = ends[1];
  SetHandler(SIGCHLD, SIG_DFL);
  for (int const signalNumber : terminationSignals) {
    if (signalNumber == SIGHUP && IsIgnored(SIGHUP)) continue;
    SetHandler(signalNumber, &OnTermination);
  }
}

void SurviveBrokenPipes() { SetHandler(SIGPIPE, &OnBrokenPipe); }

void RelayTermination(Base::ThreadLinux& loop, Base::Callback<int> onSignal) {
  loop.AddWatch(relayReadFd, EPOLLIN,
                Base::MakeCallback([onSignal = std::move(onSignal)](int fd, int /*events*/) {
                  ReadSignals(fd, onSignal);
                }));
}

TerminationBlock::TerminationBlock() {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (int const signalNumber : terminationSignals) sigaddset(&blocked, signalNumber);
  pthread_sigmask(SIG_BLOCK, &blocked, &_before);
}

TerminationBlock::~TerminationBlock() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }
