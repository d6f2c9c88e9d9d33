#include "process/shell_command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>

#include "base/exception.h"
#include "base/unique_fd.h"
#include "process/pidfd.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

TRACE_MODULE("shell_command");

namespace Process {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::int64_t defaultTimeoutSeconds = 10;
// Far beyond what anybody waits for, and far from overflowing the clock.
constexpr std::int64_t maxTimeoutSeconds = std::int64_t{1} << 31U;
// How long a killed process may take to be gone. One that hangs in the kernel cannot be killed.
constexpr std::chrono::milliseconds reapingTime{500};
// How often to look for its end where there is no descriptor that tells it.
constexpr int exitPauseMs = 10;

// What ends the waiting once commands are cancelled. Never closed: a signal may come until the very
// end.
std::atomic<int> cancelFd{-1};
std::atomic<bool> isCancelled{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "used in a signal handler");

enum class StopReason { None, Deadline, Output, Cancel };

// For ever where it is empty.
using Deadline = std::optional<Clock::time_point>;

std::int64_t GetTimeoutSeconds() {
  Base::Maybe<std::int64_t> const setting = GetInt64Argument("command-timeout");
  if (!setting || setting.Get() < 0) return defaultTimeoutSeconds;
  return std::min(setting.Get(), maxTimeoutSeconds);
}

Deadline GetDeadline(std::int64_t timeoutSeconds) {
  if (timeoutSeconds == 0) return {};
  return Clock::now() + std::chrono::seconds(timeoutSeconds);
}

// For poll(2): rounded up, so that nobody looks again just before the time.
int GetPollTimeout(Deadline const& deadline) {
  if (!deadline) return -1;
  auto const left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, std::numeric_limits<int>::max()));
}

// Waits for something to happen on `fd`, for at most `maxWaitMs` where that is not -1. May return
// early without anything having happened.
StopReason Wait(int fd, Deadline const& deadline, int maxWaitMs = -1) {
  if (AreShellCommandsCancelled()) return StopReason::Cancel;
  if (deadline && Clock::now() >= *deadline) return StopReason::Deadline;
  int timeout = GetPollTimeout(deadline);
  if (maxWaitMs != -1 && (timeout == -1 || timeout > maxWaitMs)) timeout = maxWaitMs;
  std::array<pollfd, 2> fds{pollfd{.fd = fd, .events = POLLIN, .revents = 0},
                            pollfd{.fd = cancelFd, .events = POLLIN, .revents = 0}};
  poll(fds.data(), fds.size(), timeout);
  return StopReason::None;
}

// The shell and what it starts, which form a process group of their own.
class Command {
 public:
  // Starts it; tells an errno, or 0.
  int Start(std::string const& commandLine);

  // Reads its output to the end and waits for its exit, which is left to be reaped.
  StopReason Follow(Deadline const& deadline, std::string& output);

  // Kills the group.
  void Kill() const { kill(-_pid, SIGKILL); }

  // Its status; empty when it does not go away after having been killed.
  std::optional<int> Reap() const;

 private:
  StopReason ReadToEnd(Deadline const& deadline, std::string& output);
  StopReason WaitForExit(Deadline const& deadline) const;
  bool HasExited() const;

  pid_t _pid = -1;
  Base::UniqueFd _output;
  Base::UniqueFd _exit;  // a pidfd, or empty
};

// What posix_spawn(3) is told, in objects that it wants destroyed.
class SpawnSettings {
 public:
  explicit SpawnSettings(int outputFd) {
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
  }
  SpawnSettings(SpawnSettings const&) = delete;
  SpawnSettings& operator=(SpawnSettings const&) = delete;
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }

  posix_spawn_file_actions_t actions{};
  posix_spawnattr_t attributes{};
};

int Command::Start(std::string const& commandLine) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) == -1) return errno;
  _output.Reset(ends[0]);
  Base::UniqueFd const commandEnd(ends[1]);
  // This end alone: programs expect a standard output that blocks.
  if (fcntl(_output.Get(), F_SETFL, O_NONBLOCK) == -1) return errno;
  SpawnSettings const settings(commandEnd.Get());
  std::string shell = "sh";
  std::string option = "-c";
  std::string text = commandLine;
  std::array<char*, 4> const argv{shell.data(), option.data(), text.data(), nullptr};
  int const error =
      posix_spawn(&_pid, "/bin/sh", &settings.actions, &settings.attributes, argv.data(), environ);
  if (error == 0) _exit = OpenPidfd(_pid);
  return error;
}

StopReason Command::Follow(Deadline const& deadline, std::string& output) {
  StopReason const stopReason = ReadToEnd(deadline, output);
  return stopReason == StopReason::None ? WaitForExit(deadline) : stopReason;
}

StopReason Command::ReadToEnd(Deadline const& deadline, std::string& output) {
  std::array<char, 4096> piece;
  for (;;) {
    StopReason const stopReason = Wait(_output.Get(), deadline);
    if (stopReason != StopReason::None) return stopReason;
    ssize_t const count = read(_output.Get(), piece.data(), piece.size());
    if (count == 0) return StopReason::None;
    if (count > 0) output.append(piece.data(), static_cast<std::size_t>(count));
    if (output.size() > maxShellOutput) return StopReason::Output;
  }
}

StopReason Command::WaitForExit(Deadline const& deadline) const {
  while (!HasExited()) {
    StopReason const stopReason = Wait(_exit.Get(), deadline, _exit ? -1 : exitPauseMs);
    if (stopReason != StopReason::None) return stopReason;
  }
  return StopReason::None;
}

bool Command::HasExited() const {
  siginfo_t info{};
  int const result = waitid(P_PID, static_cast<id_t>(_pid), &info, WEXITED | WNOHANG | WNOWAIT);
  return result == -1 || info.si_pid == _pid;
}

std::optional<int> Command::Reap() const {
  Clock::time_point const deadline = Clock::now() + reapingTime;
  for (;;) {
    int status = -1;  // what pclose(3) tells of a child that somebody else has reaped
    if (waitpid(_pid, &status, WNOHANG) != 0) return status;
    if (Clock::now() >= deadline) return {};
    pollfd exit{.fd = _exit.Get(), .events = POLLIN, .revents = 0};
    poll(&exit, 1, exitPauseMs);
  }
}

void LogStop(StopReason stopReason, std::string const& commandLine, std::int64_t timeoutSeconds) {
  if (stopReason == StopReason::Deadline) {
    TRACE_WARNING("Command took too long", commandLine, timeoutSeconds);
  } else if (stopReason == StopReason::Output) {
    TRACE_WARNING("Command printed too much", commandLine, maxShellOutput);
  } else {
    TRACE_WARNING("Command was cancelled", commandLine);
  }
}

}  // namespace

ShellResult RunInShell(std::string const& commandLine) {
  std::int64_t const timeoutSeconds = GetTimeoutSeconds();
  Deadline const deadline = GetDeadline(timeoutSeconds);
  ShellResult result;
  if (AreShellCommandsCancelled()) {
    LogStop(StopReason::Cancel, commandLine, timeoutSeconds);
    result.wasStopped = true;
    return result;
  }
  Command command;
  result.errorCode = command.Start(commandLine);
  if (result.errorCode != 0) return result;
  StopReason const stopReason = command.Follow(deadline, result.output);
  result.wasStopped = stopReason != StopReason::None;
  if (result.wasStopped) {
    LogStop(stopReason, commandLine, timeoutSeconds);
    result.output.clear();
    command.Kill();
  }
  std::optional<int> const status = command.Reap();
  if (!status) TRACE_WARNING("Command cannot be killed", commandLine);
  result.status = status.value_or(-1);
  return result;
}

void AllowCancelOfShellCommands() {
  int const fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd == -1) {
    int const errorNumber = errno;
    TRACE_ERROR("Failed to create cancel event", errorNumber);
    throw Base::ExceptionPosix(errorNumber);
  }
  cancelFd = fd;
}

void CancelShellCommands() noexcept {
  if (cancelFd == -1) return;
  isCancelled = true;
  eventfd_write(cancelFd, 1);
}

bool AreShellCommandsCancelled() noexcept { return isCancelled; }

}  // namespace Process
