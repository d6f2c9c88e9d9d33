#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace Process {

// Bounds all shell commands (process/shell_command.h) that one thread runs while the budget exists:
// each command's deadline is at the latest the end of the budget. When the budget ends,
// `RunInShell` kills the running command, and starts no later one.
//
// The budget also keeps the reason for which a command did not run to its own end, so that a caller
// several calls above `RunInShell` can tell an incomplete result from a complete one.
//
//   Process::CommandBudget budget(std::chrono::seconds(30));
//   auto const response = AskIgel();
//
// Threads:  an object belongs to the thread that constructs it. That thread also destroys it.
// Lifetime: budgets of one thread nest like scopes, and only the innermost one counts.
class CommandBudget {
 public:
  // Begins the budget. Without an end when `limit` is 0 or less.
  explicit CommandBudget(std::chrono::seconds limit);
  CommandBudget(CommandBudget const&) = delete;
  CommandBudget& operator=(CommandBudget const&) = delete;
  ~CommandBudget();

  // Why a command of this budget was stopped or could not be started, as a sentence for the client.
  // The first such command counts. Empty when each command ran to its own end; a cancel counts as
  // none. An example: "A command took longer than 10 s".
  std::string const& GetFailure() const { return _failure; }

  // The innermost budget of the calling thread; null when there is none.
  static CommandBudget* GetCurrent();

  // For `RunInShell`: the end on the monotonic clock, empty when the budget has none; the limit;
  // and storing a failure, which does nothing when there is one already.
  std::optional<std::chrono::steady_clock::time_point> GetEnd() const { return _end; }
  std::chrono::seconds GetLimit() const { return _limit; }
  void RecordFailure(std::string failure);

 private:
  CommandBudget* const _outer;
  std::chrono::seconds const _limit;
  std::optional<std::chrono::steady_clock::time_point> const _end;
  std::string _failure;
};

}  // namespace Process
