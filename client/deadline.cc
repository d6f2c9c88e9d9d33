#include "client/deadline.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <iostream>
#include <mutex>
#include <system_error>
#include <thread>

#include "base/exception.h"
#include "base/loop/thread_pool.h"
#include "client/condition.h"
#include "process/command_budget.h"
#include "process/shell_command.h"
#include "support/error.h"

namespace {

constexpr std::chrono::milliseconds tick{100};

std::atomic<bool> hasAbandonedSteps{false};

// How long a killed command may take to be gone, and how long a `SignalDelay` holds a signal.
constexpr std::chrono::seconds endLimit{2};
constexpr std::chrono::seconds delayLimit{10};

// The commands of all threads, and the end of the process.
struct Commands {
  std::mutex mutex;
  Condition changed;
  int running = 0;
  bool isEnding = false;
  bool isDelayed = false;  // by a `SignalDelay`
};

// Never destroyed: abandoned steps and the thread of the signals use it until the process is gone.
Commands& GetCommands() {
  static auto* const commands = new Commands;
  return *commands;
}

// Counts a command. When the process is about to end, its thread does not go on: it would take the
// killed command for one that has failed, and could print or write that.
class CommandCount {
 public:
  CommandCount() { Change(1); }
  CommandCount(CommandCount const&) = delete;
  CommandCount& operator=(CommandCount const&) = delete;
  ~CommandCount() { Change(-1); }

 private:
  static void Change(int difference) {
    Commands& commands = GetCommands();
    std::unique_lock lock(commands.mutex);
    if (difference < 0 || !commands.isEnding) commands.running += difference;
    commands.changed.NotifyAll();
    commands.changed.Wait(lock, [&commands] { return !commands.isEnding; });
  }
};

void KillCommands() {
  Commands& commands = GetCommands();
  std::unique_lock lock(commands.mutex);
  commands.isEnding = true;
  Process::CancelShellCommands();
  commands.changed.WaitUntil(lock, Condition::Clock::now() + endLimit,
                             [&commands] { return commands.running == 0; });
}

// Waits until no other thread holds the delay, at most until `deadline`, and holds it then.
void HoldDelay(Condition::Clock::time_point deadline) {
  Commands& commands = GetCommands();
  std::unique_lock lock(commands.mutex);
  commands.changed.WaitUntil(lock, deadline, [&commands] { return !commands.isDelayed; });
  commands.isDelayed = true;
}

[[noreturn]] void EndBySignal(sigset_t const& signals) {
  int number = 0;
  while (sigwait(&signals, &number) != 0) continue;
  HoldDelay(Condition::Clock::now() + delayLimit);  // for good: nothing is written any more
  KillCommands();
  signal(number, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  kill(getpid(), number);
  _exit(128 + number);  // the first process of a container, to which a signal has no default effect
}

// Shared by the caller and the step's thread; the later of them destroys it.
struct Progress {
  std::mutex mutex;
  Condition changed;
  bool hasEnded = false;
  // As a value: two threads would share an exception_ptr.
  std::optional<Support::Error> error;
};

void Run(std::function<void()>& step, Progress& progress) {
  std::optional<Support::Error> error;
  try {
    step();
  } catch (std::exception const& err) {
    error = Support::Error::FromException(err);
  }
  step = {};  // what it holds is destroyed before the caller goes on
  std::scoped_lock const lock(progress.mutex);
  progress.error = std::move(error);
  progress.hasEnded = true;
  progress.changed.NotifyAll();
}

bool WaitForEnd(Progress& progress, std::chrono::milliseconds limit,
                std::function<void()> const& onTick) {
  auto const deadline = Condition::Clock::now() + limit;
  std::unique_lock lock(progress.mutex);
  for (;;) {
    auto const now = Condition::Clock::now();
    if (progress.hasEnded || now >= deadline) return progress.hasEnded;
    progress.changed.WaitUntil(lock, std::min(deadline, now + tick),
                               [&progress] { return progress.hasEnded; });
    if (!onTick) continue;
    lock.unlock();
    onTick();
    lock.lock();
  }
}

}  // namespace

bool RunStep(std::function<void()> step, std::chrono::milliseconds limit,
             std::function<void()> const& onTick) {
  auto const progress = std::make_shared<Progress>();
  std::thread thread;
  try {
    thread = std::thread([step = std::move(step), progress]() mutable { Run(step, *progress); });
  } catch (std::system_error const& err) {
    throw Support::Error::FromException(err);
  }
  if (!WaitForEnd(*progress, limit, onTick)) {
    hasAbandonedSteps = true;
    thread.detach();
    return false;
  }
  thread.join();
  if (progress->error) throw Support::Error(*progress->error);
  return true;
}

int FinishProgram(int status) {
  if (!hasAbandonedSteps) {
    Base::ShutdownThreadPools();
    return status;
  }
  KillCommands();
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  _exit(status);
}

void EndCommandsOnSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int const number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler != SIG_IGN) sigaddset(&signals, number);
  }
  // Blocked in every thread, so that they all stay pending for the one that waits for them.
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  try {
    Process::AllowCancelOfShellCommands();
    std::thread([signals] { EndBySignal(signals); }).detach();
  } catch (std::exception const&) {
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  }
}

SignalDelay::SignalDelay() { HoldDelay(Condition::Clock::time_point::max()); }

SignalDelay::~SignalDelay() {
  Commands& commands = GetCommands();
  std::scoped_lock const lock(commands.mutex);
  commands.isDelayed = false;
  commands.changed.NotifyAll();
}

std::string QuoteForShell(std::string_view word) {
  std::string quoted = "'";
  for (char const c : word) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

CommandResult RunCommand(Command const& command) {
  // With `export`: a shell may look for the program before it makes the assignments of a command.
  std::string line = "export LC_ALL=C";
  if (!command.path.empty()) line += " PATH=" + QuoteForShell(command.path);
  line += "; exec </dev/null 2>";
  line += command.withErrors ? "&1" : "/dev/null";
  line += ";";
  for (std::string const& word : command.words) line += " " + QuoteForShell(word);

  Process::CommandBudget const budget(command.limit);
  auto const run = [&line] {
    CommandCount const count;
    return Process::RunInShell(line);
  };
  Process::ShellResult result = run();
  if (result.errorCode != 0 || result.wasStopped) {
    Support::Error error(
        result.wasStopped ? "command-stopped" : "command-not-started",
        "The command " + command.words.at(0) +
            (result.wasStopped ? " took too long or printed too much" : " could not be started"));
    error.With("command", command.words.at(0)).Because(Base::Exception(budget.GetFailure()));
    throw Support::Error(error);
  }
  int const status =
      WIFSIGNALED(result.status) ? 128 + WTERMSIG(result.status) : WEXITSTATUS(result.status);
  return {.status = status, .output = std::move(result.output)};
}
