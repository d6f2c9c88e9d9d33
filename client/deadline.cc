#include "client/deadline.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <iostream>
#include <mutex>
#include <system_error>
#include <thread>

#include "base/exception.h"
#include "base/loop/thread_pool.h"
#include "process/command_budget.h"
#include "process/shell_command.h"
#include "support/error.h"

namespace {

constexpr std::chrono::milliseconds tick{100};

std::atomic<bool> hasAbandonedSteps{false};

// Shared by the caller and the step's thread; the later of them destroys it.
struct Progress {
  std::mutex mutex;
  std::condition_variable changed;
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
  progress.changed.notify_one();
}

bool WaitForEnd(Progress& progress, std::chrono::milliseconds limit,
                std::function<void()> const& onTick) {
  auto const deadline = std::chrono::steady_clock::now() + limit;
  std::unique_lock lock(progress.mutex);
  for (;;) {
    auto const now = std::chrono::steady_clock::now();
    if (progress.hasEnded || now >= deadline) return progress.hasEnded;
    progress.changed.wait_until(lock, std::min(deadline, now + tick));
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
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  _exit(status);
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
  Process::ShellResult result = Process::RunInShell(line);
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
