#include "process/command_budget.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace Process {

namespace {

using Clock = std::chrono::steady_clock;

// Longer than anybody waits, and too short to overflow the clock.
constexpr std::chrono::seconds maxLimit{std::int64_t{1} << 31U};

thread_local CommandBudget* current = nullptr;

}  // namespace

CommandBudget::CommandBudget(std::chrono::seconds limit)
    : _outer(std::exchange(current, this)),
      _limit(std::min(limit, maxLimit)),
      _end(_limit.count() > 0 ? std::optional(Clock::now() + _limit) : std::nullopt) {}

CommandBudget::~CommandBudget() { current = _outer; }

CommandBudget* CommandBudget::GetCurrent() { return current; }

void CommandBudget::RecordFailure(std::string failure) {
  if (_failure.empty()) _failure = std::move(failure);
}

}  // namespace Process
