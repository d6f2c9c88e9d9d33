#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <future>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "base/exception.h"
#include "base/loop/thread_pool.h"
#include "base/shared.h"
#include "base/standard_streams.h"
#include "client/command_line.h"
#include "client/exchange.h"
#include "utilities/arguments/arguments.h"

namespace {

enum class ExitStatus : int { Success = 0, OtherStatus = 1, WrongUsage = 2, NoAnswer = 3 };

// One line, whatever the text that came from elsewhere holds.
int Complain(ExitStatus status, std::string reason) {
  std::ranges::replace_if(
      reason, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; }, ' ');
  std::cerr << "ktclientctl: " + reason + "\n";
  return static_cast<int>(status);
}

std::string AskDaemon(CommandLine const& commandLine) {
  auto const exchange = Base::MakeShared<Exchange>(commandLine.address, commandLine.request);
  std::future<Exchange::Outcome> future = exchange->Start();
  if (future.wait_for(commandLine.timeout) != std::future_status::ready) {
    throw Base::Exception("No answer within " + std::to_string(commandLine.timeout.count()) +
                          " seconds");
  }
  Exchange::Outcome outcome = future.get();
  if (!outcome.isAnswer) throw Base::Exception(outcome.text);
  return std::move(outcome.text);
}

// Printing is recursive, and no answer of the daemon's nests deeper than a few levels.
bool RefuseDeepNesting(int depth, nlohmann::json::parse_event_t /*event*/,
                       nlohmann::json const& /*parsed*/) {
  constexpr int maxDepth = 100;
  if (depth > maxDepth) throw Base::Exception("The daemon's answer is broken");
  return true;
}

int PrintAnswer(std::string const& text, bool compact) {
  auto const answer = nlohmann::json::parse(text, &RefuseDeepNesting, false);
  bool const isAnswer = answer.contains("status") && answer["status"].is_string();
  if (!isAnswer) return Complain(ExitStatus::NoAnswer, "The daemon's answer is broken");
  std::cout << answer.dump(compact ? -1 : 2) << "\n" << std::flush;
  if (!std::cout) return Complain(ExitStatus::NoAnswer, "Cannot print the answer");
  auto const status = answer["status"].get<std::string>();
  if (status == "Success") return static_cast<int>(ExitStatus::Success);
  bool const hasMessage = answer.contains("error_message") && answer["error_message"].is_string();
  return Complain(ExitStatus::OtherStatus,
                  "The daemon answered " + status +
                      (hasMessage ? ": " + answer["error_message"].get<std::string>() : ""));
}

int Run(CommandLine const& commandLine) {
  try {
    std::string const text = AskDaemon(commandLine);
    return PrintAnswer(text, commandLine.compact);
  } catch (std::exception const& err) {
    return Complain(ExitStatus::NoAnswer, err.what());
  }
}

// The environment's settings are the daemon's: its trace on the console would stand in the middle
// of the answer. Only the address is for both.
void ForgetDaemonSettings() {
  ParseArguments();
  for (Argument const& argument : GetArguments()) {
    if (NormaliseArgumentName(argument.name) == "socket") continue;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
    unsetenv(argument.text.substr(0, argument.text.find('=')).c_str());
  }
}

int Print(std::string_view text) {
  std::cout << text << std::flush;
  return std::cout ? 0 : Complain(ExitStatus::NoAnswer, "Cannot print");
}

}  // namespace

int main(int argc, char** argv) {
  if (IsWordOfCommandLine(argc, argv, "--help")) return Print(GetHelp());
  if (IsWordOfCommandLine(argc, argv, "--version"))
    return Print("ktclientctl " KTCLIENTD_VERSION "\n");
  bool const canPrint = fcntl(STDOUT_FILENO, F_GETFD) != -1;
  Base::OpenMissingStandardStreams();
  if (!canPrint) return Complain(ExitStatus::NoAnswer, "Standard output is closed");
  // A daemon or a reader of ours that goes away is an error like any other.
  signal(SIGPIPE, SIG_IGN);
  ForgetDaemonSettings();
  CommandLine commandLine;
  try {
    commandLine = ReadCommandLine(argc, argv);
  } catch (Base::Exception const& err) {
    return Complain(ExitStatus::WrongUsage, std::string(err.what()) + " (see ktclientctl --help)");
  }
  int const status = Run(commandLine);
  Base::ShutdownThreadPools();
  return status;
}
