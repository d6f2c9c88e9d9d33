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
#include <cstring>
#include <filesystem>
#include <limits>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "base/exception.h"
#include "base/unique_fd.h"
#include "process/command_budget.h"
#include "process/pidfd.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

// popen(3) would run the commands just as well, but nobody could stop them: it keeps the process id
// to itself, and its stream blocks without a time limit. So the engine starts the shell itself and
// waits with poll(2), for the command and for a cancel at once.
//
//   Start -> ReadOutput -> WaitForExit ----------> Reap -> result: status and output
//                 |            |                    ^
//                 '------------'-- stop reason --> Kill, result: stopped
//
// A command has ended when both its output and its shell have, as with popen(3) and pclose(3). The
// end of the output alone does not count: a shell may close its output and go on, and its exit code
// is still to come. The exit of the shell alone does not count either: a process that it started in
// the background may still print, and the pipe may still hold output.
//
// Each wait first looks for a stop reason: a cancel, the end of the budget, the deadline, and while
// reading the size of the output. A stopped command is killed as a process group. Killing the shell
// alone would leave the tool that it started running, without anybody who would end it. The exit of
// the shell is awaited without reaping it: as long as the zombie exists, the kernel gives its id to
// no other process or group, so `Kill` cannot hit a stranger. Only `Reap` ends the zombie. It has a
// time limit too, because a process that hangs in the kernel does not die. The shell is then left
// to `LateShells`: each later command first reaps those that have exited meanwhile, and the init
// process reaps what is left when this process ends.
//
// A signal handler cancels: it sets a flag and writes to an eventfd that nobody reads. The eventfd
// stays readable, so from then on every poll returns at once, in every thread.

TRACE_MODULE("shell_command");

namespace Process {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::int64_t defaultTimeoutSeconds = 10;
// Longer than anybody waits, and too short to overflow the clock.
constexpr std::int64_t maxTimeoutSeconds = std::int64_t{1} << 31U;
// How long a killed shell may take to exit. A process that hangs in the kernel never does.
constexpr std::chrono::milliseconds maxReapTime{500};
// Without a pidfd, how often to look whether the shell has exited.
constexpr int exitPollMs = 10;

// An eventfd, readable once commands are cancelled; -1 as long as a cancel is not allowed. Never
// closed: the signal that cancels may come until the process ends.
std::atomic<int> cancelFd{-1};
std::atomic<bool> isCancelled{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "used in a signal handler");

enum class StopReason { None, Deadline, Budget, Output, Cancel };

// When a command is stopped at the latest; the earlier of the two counts. Empty: no deadline.
struct Deadlines {
  std::optional<Clock::time_point> command;
  std::optional<Clock::time_point> budget;
};

std::int64_t GetTimeoutSeconds() {
  Base::Maybe<std::int64_t> const setting = GetInt64Argument("command-timeout");
  if (!setting || setting.Get() < 0) return defaultTimeoutSeconds;
  return std::min(setting.Get(), maxTimeoutSeconds);
}

Deadlines GetDeadlines(std::int64_t timeoutSeconds) {
  Deadlines deadlines;
  if (timeoutSeconds != 0) deadlines.command = Clock::now() + std::chrono::seconds(timeoutSeconds);
  if (auto const* const budget = CommandBudget::GetCurrent()) deadlines.budget = budget->GetEnd();
  return deadlines;
}

// The time left as a timeout of poll(2), or `timeoutMs` if that is shorter; -1 is no timeout.
// Rounded up: rounded down, the last wait would end just before the deadline, and poll would then
// be called in a loop with 0.
int ShortenTimeout(int timeoutMs, std::optional<Clock::time_point> const& deadline) {
  if (!deadline) return timeoutMs;
  auto const left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
  std::int64_t const longest = timeoutMs == -1 ? std::numeric_limits<int>::max() : timeoutMs;
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, longest));
}

StopReason GetStopReason(Deadlines const& deadlines) {
  if (AreShellCommandsCancelled()) return StopReason::Cancel;
  Clock::time_point const now = Clock::now();
  if (deadlines.budget && now >= *deadlines.budget) return StopReason::Budget;
  if (deadlines.command && now >= *deadlines.command) return StopReason::Deadline;
  return StopReason::None;
}

// Returns a stop reason if there is one already. Else waits for input on `fd`, a deadline or a
// cancel, for at most `maxWaitMs` unless that is -1, and returns None; callers then look again.
StopReason Wait(int fd, Deadlines const& deadlines, int maxWaitMs = -1) {
  StopReason const stopReason = GetStopReason(deadlines);
  if (stopReason != StopReason::None) return stopReason;
  int const timeout =
      ShortenTimeout(ShortenTimeout(maxWaitMs, deadlines.command), deadlines.budget);
  std::array<pollfd, 2> fds{pollfd{.fd = fd, .events = POLLIN, .revents = 0},
                            pollfd{.fd = cancelFd, .events = POLLIN, .revents = 0}};
  poll(fds.data(), fds.size(), timeout);
  return StopReason::None;
}

// The shells that had not exited in time after they were killed, of all threads.
class LateShells {
 public:
  void Add(pid_t pid) {
    std::scoped_lock const lock(_mutex);
    _pids.push_back(pid);
  }

  // Reaps those that have exited.
  void Reap() {
    std::vector<pid_t> pids;
    {
      std::scoped_lock const lock(_mutex);
      pids.swap(_pids);
    }
    for (pid_t const pid : pids) {
      if (waitpid(pid, nullptr, WNOHANG) == 0) Add(pid);
    }
  }

 private:
  std::mutex _mutex;
  std::vector<pid_t> _pids;
};

// Never destroyed: a thread may still run a command while the process exits.
LateShells& GetLateShells() {
  static auto* const shells = new LateShells;
  return *shells;
}

// A shell and the processes that it starts, all in one process group.
class Command {
 public:
  // Starts the shell. Returns 0, or an errno.
  int Start(std::string const& commandLine);

  // Reads the output to its end and then waits for the shell's exit, which it leaves to `Reap`.
  StopReason RunToEnd(Deadlines const& deadlines, std::string& output);

  // Kills the process group. Only before `Reap`.
  void Kill() const { kill(-_pid, SIGKILL); }

  // Reaps the shell and returns its status. Empty when the shell does not exit although it was
  // killed; `LateShells` then has it.
  std::optional<int> Reap() const;

 private:
  StopReason ReadOutput(Deadlines const& deadlines, std::string& output);
  StopReason WaitForExit(Deadlines const& deadlines) const;
  bool HasExited() const;

  pid_t _pid = -1;  // of the shell, and the id of the group
  Base::UniqueFd _output;
  Base::UniqueFd _exit;  // a pidfd; empty when the kernel gives none
};

// Owns the settings for posix_spawn(3): a new process group, every signal at its default and none
// blocked, `outputFd` as standard output, and no descriptor above 2.
class SpawnSettings {
 public:
  explicit SpawnSettings(int outputFd) {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    // sigfillset leaves out the signals that glibc keeps for itself, and posix_spawn makes a child
    // ignore those that are not in the set.
    sigset_t all;
    std::memset(&all, 0xff, sizeof all);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    error = posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
    if (error == 0) error = CloseFrom(STDERR_FILENO + 1);
  }
  SpawnSettings(SpawnSettings const&) = delete;
  SpawnSettings& operator=(SpawnSettings const&) = delete;
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }

  posix_spawn_file_actions_t actions{};
  posix_spawnattr_t attributes{};
  int error = 0;  // an errno when an action could not be added

 private:
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 34)
  int CloseFrom(int first) { return posix_spawn_file_actions_addclosefrom_np(&actions, first); }
#else
  // The C library has no such action. So each descriptor that is open now gets an action of its
  // own; one that another thread opens after this needs the close-on-exec bit.
  int CloseFrom(int first) {
    std::error_code failure;
    std::filesystem::directory_iterator entry("/proc/self/fd", failure);
    for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
      int const fd = std::stoi(entry->path().filename());
      int const result = fd < first ? 0 : posix_spawn_file_actions_addclose(&actions, fd);
      if (result != 0) return result;
    }
    return failure.value();
  }
#endif
};

// Whether `variable`, "name=value", is addressed to this process and would mislead another one: the
// protocols of systemd, see sd_notify(3) and sd_listen_fds(3), and the settings of this program.
bool IsOwnVariable(std::string_view variable) {
  return variable.starts_with("NOTIFY_SOCKET=") || variable.starts_with("LISTEN_") ||
         variable.starts_with("KESTREL_");
}

// The environment for a command. Ends with a null pointer.
std::vector<char*> GetCommandEnvironment() {
  std::vector<char*> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (!IsOwnVariable(*variable)) variables.push_back(*variable);
  }
  variables.push_back(nullptr);
  return variables;
}

int Command::Start(std::string const& commandLine) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) == -1) return errno;
  _output.Reset(ends[0]);
  Base::UniqueFd const commandEnd(ends[1]);
  // Only the reading end: programs expect that their standard output blocks.
  if (fcntl(_output.Get(), F_SETFL, O_NONBLOCK) == -1) return errno;
  SpawnSettings const settings(commandEnd.Get());
  if (settings.error != 0) return settings.error;
  std::string shell = "sh";
  std::string option = "-c";
  std::string text = commandLine;
  std::array<char*, 4> const argv{shell.data(), option.data(), text.data(), nullptr};
  std::vector<char*> const environment = GetCommandEnvironment();
  int const error = posix_spawn(&_pid, "/bin/sh", &settings.actions, &settings.attributes,
                                argv.data(), environment.data());
  if (error == 0) _exit = OpenPidfd(_pid);
  return error;
}

StopReason Command::RunToEnd(Deadlines const& deadlines, std::string& output) {
  StopReason const stopReason = ReadOutput(deadlines, output);
  return stopReason == StopReason::None ? WaitForExit(deadlines) : stopReason;
}

StopReason Command::ReadOutput(Deadlines const& deadlines, std::string& output) {
  std::array<char, 4096> piece;
  for (;;) {
    StopReason const stopReason = Wait(_output.Get(), deadlines);
    if (stopReason != StopReason::None) return stopReason;
    ssize_t const count = read(_output.Get(), piece.data(), piece.size());
    if (count == 0) return StopReason::None;
    if (count > 0) output.append(piece.data(), static_cast<std::size_t>(count));
    if (output.size() > maxShellOutput) return StopReason::Output;
  }
}

StopReason Command::WaitForExit(Deadlines const& deadlines) const {
  while (!HasExited()) {
    StopReason const stopReason = Wait(_exit.Get(), deadlines, _exit ? -1 : exitPollMs);
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
  Clock::time_point const deadline = Clock::now() + maxReapTime;
  for (;;) {
    int status = -1;  // what pclose(3) returns when somebody else has reaped the child
    if (waitpid(_pid, &status, WNOHANG) != 0) return status;
    if (Clock::now() >= deadline) {
      GetLateShells().Add(_pid);
      return {};
    }
    pollfd exit{.fd = _exit.Get(), .events = POLLIN, .revents = 0};
    poll(&exit, 1, exitPollMs);
  }
}

void RecordFailure(std::string failure) {
  if (auto* const budget = CommandBudget::GetCurrent()) {
    budget->RecordFailure(std::move(failure));
  }
}

void ReportStop(StopReason stopReason, std::string const& commandLine,
                std::int64_t timeoutSeconds) {
  if (stopReason == StopReason::Deadline) {
    TRACE_WARNING("Command took too long", commandLine, timeoutSeconds);
    RecordFailure("A command took longer than " + std::to_string(timeoutSeconds) + " s");
  } else if (stopReason == StopReason::Budget) {
    timeoutSeconds = CommandBudget::GetCurrent()->GetLimit().count();
    TRACE_WARNING("Request took too long", commandLine, timeoutSeconds);
    RecordFailure("The request took longer than " + std::to_string(timeoutSeconds) + " s");
  } else if (stopReason == StopReason::Output) {
    TRACE_WARNING("Command printed too much", commandLine, maxShellOutput);
    RecordFailure("A command printed more than " + std::to_string(maxShellOutput) + " bytes");
  } else {
    TRACE_WARNING("Command was cancelled", commandLine);
  }
}

void ReportFailedStart(std::string const& commandLine, int error) {
  TRACE_WARNING("Command could not be started", commandLine, error);
  RecordFailure("A command could not be started: " + Base::ErrnoText(error));
}

}  // namespace

ShellResult RunInShell(std::string const& commandLine) {
  std::int64_t const timeoutSeconds = GetTimeoutSeconds();
  Deadlines const deadlines = GetDeadlines(timeoutSeconds);
  GetLateShells().Reap();
  ShellResult result;
  if (StopReason const stopReason = GetStopReason(deadlines); stopReason != StopReason::None) {
    ReportStop(stopReason, commandLine, timeoutSeconds);
    result.wasStopped = true;
    return result;
  }
  Command command;
  result.errorCode = command.Start(commandLine);
  if (result.errorCode != 0) {
    ReportFailedStart(commandLine, result.errorCode);
    return result;
  }
  StopReason const stopReason = command.RunToEnd(deadlines, result.output);
  result.wasStopped = stopReason != StopReason::None;
  if (result.wasStopped) {
    ReportStop(stopReason, commandLine, timeoutSeconds);
    result.output.clear();
    command.Kill();
  }
  std::optional<int> const status = command.Reap();
  if (!status) TRACE_WARNING("Command cannot be killed", commandLine);
  result.status = status.value_or(-1);
  result.exitCode = WEXITSTATUS(result.status);
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
