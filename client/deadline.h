#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Work that may take too long: a step runs on a thread of its own, and its caller stops waiting at
// a deadline. A system call on a dead file system can block for ever, and no signal ends it. So a
// step that is late is abandoned: its thread goes on, and the program ends without it.
//
//   auto const size = RunWithDeadline<off_t>([path] { return GetSize(path); }, seconds(5));
//   if (!size) ...  // too late
//   ...
//   return FinishProgram(status);

// Runs `step` on a new thread and waits until it ends, for at most `limit`. Returns the value of
// `step`; nothing when the time is over.
//
// An abandoned step can outlive the caller, so `step` must own all that it uses: capture by value.
//
// `onTick`, if there is one, is called on the calling thread about ten times a second during the
// wait, for a progress line.
//
// Throws Support::Error: what `step` has thrown, by `Support::Error::FromException`; the code
// "failed" when no thread can be started.
template <typename Value>
std::optional<Value> RunWithDeadline(std::function<Value()> step, std::chrono::milliseconds limit,
                                     std::function<void()> const& onTick = {});

// Ends a program that may have abandoned steps. Without one, calls `Base::ShutdownThreadPools` and
// returns `status`, for `main` to return. With one, kills the commands that still run, flushes the
// standard streams and ends the process with `status` by _exit(2): the destruction of static
// objects would race with the step.
int FinishProgram(int status);

// From now on SIGHUP, SIGINT, SIGQUIT and SIGTERM end the program in an order: first a
// `SignalDelay` ends, then the running commands are killed, then the signal has its default effect.
// Commands have process groups of their own, so a terminal's Ctrl-C does not reach them. A signal
// that the process ignores stays ignored. Without a descriptor or a thread for this, signals keep
// their default effect.
//
// Call it before there is a second thread.
void EndCommandsOnSignals();

// While one exists, those signals wait, for at most 10 s: a file is being written. One at a time.
class SignalDelay {
 public:
  SignalDelay();
  SignalDelay(SignalDelay const&) = delete;
  SignalDelay& operator=(SignalDelay const&) = delete;
  ~SignalDelay();
};

// A program to run with its arguments. The words reach the program as they are: `RunCommand` quotes
// them for the shell. LC_ALL is C in its environment.
struct Command {
  std::vector<std::string> words;
  std::chrono::seconds limit{10};  // at least one second; the setting "command-timeout" counts, too
  std::string path = {};    // PATH, also to look for the program; empty: that of this process
  bool withErrors = false;  // the output includes standard error; else that is discarded
};

struct CommandResult {
  int status = 0;      // exit code as a shell has it: 127 without a program, 128+N after signal N
  std::string output;  // at most `Process::maxShellOutput` bytes
};

// Runs the command by `Process::RunInShell` with empty standard input, and blocks until it has
// ended or is killed. Call it inside a step: starting a program can block, too.
//
// Throws Support::Error with the field "command": "command-stopped" when the time is over or the
// output is too long, "command-not-started" when there is no process for it.
CommandResult RunCommand(Command const& command);

// `word` in single quotes, so that a shell takes it as it is.
std::string QuoteForShell(std::string_view word);

// For `RunWithDeadline`: whether `step` ended in time.
bool RunStep(std::function<void()> step, std::chrono::milliseconds limit,
             std::function<void()> const& onTick);

template <typename Value>
std::optional<Value> RunWithDeadline(std::function<Value()> step, std::chrono::milliseconds limit,
                                     std::function<void()> const& onTick) {
  auto const value = std::make_shared<std::optional<Value>>();
  bool const hasEnded =
      RunStep([step = std::move(step), value] { *value = step(); }, limit, onTick);
  if (!hasEnded) return {};
  return std::move(*value);
}
