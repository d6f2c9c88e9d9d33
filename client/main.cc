#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <future>
#include <iostream>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>

#include "base/exception.h"
#include "base/shared.h"
#include "base/thread_pool.h"
#include "client/command_line.h"
#include "client/exchange.h"
#include "net/address.h"
#include "utilities/arguments.h"

namespace {

enum ExitStatus : int { exitSuccess = 0, exitOtherStatus = 1, exitUsage = 2, exitNoAnswer = 3 };

int Complain(ExitStatus status, std::string const& reason) {
  std::cerr << "ktclientctl: " + reason + "\n";
  return status;
}

std::string AskDaemon(CommandLine const& commandLine) {
  auto const exchange = Base::MakeShared<Exchange>(
      Net::Address::FromUnixText(commandLine.address), commandLine.request);
  std::future<std::string> answer = exchange->Start();
  if (answer.wait_for(commandLine.timeout) != std::future_status::ready) {
    throw Base::Exception("No answer within " + std::to_string(commandLine.timeout.count()) +
                          " seconds");
  }
  return answer.get();
}

int PrintAnswer(std::string const& text, bool compact) {
  auto const answer = nlohmann::json::parse(text, nullptr, false);
  bool const isAnswer = answer.contains("status") && answer["status"].is_string();
  if (!isAnswer) return Complain(exitNoAnswer, "The daemon's answer is broken");
  std::cout << answer.dump(compact ? -1 : 2) << "\n" << std::flush;
  if (!std::cout) return Complain(exitNoAnswer, "Cannot print the answer");
  auto const status = answer["status"].get<std::string>();
  if (status == "Success") return exitSuccess;
  bool const hasMessage = answer.contains("error_message") && answer["error_message"].is_string();
  return Complain(exitOtherStatus,
                  "The daemon answered " + status +
                      (hasMessage ? ": " + answer["error_message"].get<std::string>() : ""));
}

int Run(CommandLine const& commandLine) {
  try {
    std::string const text = AskDaemon(commandLine);
    return PrintAnswer(text, commandLine.compact);
  } catch (std::exception const& err) {
    return Complain(exitNoAnswer, err.what());
  }
}

bool HasOption(std::span<char const* const> arguments, std::string_view option) {
  return std::ranges::any_of(arguments,
                             [option](char const* argument) { return argument == option; });
}

int Print(std::string_view text) {
  std::cout << text << std::flush;
  return std::cout ? exitSuccess : Complain(exitNoAnswer, "Cannot print");
}

}  // namespace

int main(int argc, char** argv) {
  std::span<char const* const> const arguments(argv, static_cast<std::size_t>(argc));
  if (HasOption(arguments, "--help")) return Print(GetUsage());
  if (HasOption(arguments, "--version")) return Print("ktclientctl " KTCLIENTD_VERSION "\n");
  // A daemon or a reader of ours that goes away is an error like any other.
  signal(SIGPIPE, SIG_IGN);
  ParseArguments(argc, argv);
  CommandLine commandLine;
  try {
    commandLine = ReadCommandLine();
  } catch (Base::Exception const& err) {
    return Complain(exitUsage, std::string(err.what()) + " (see ktclientctl --help)");
  }
  int const status = Run(commandLine);
  Base::ShutdownThreadPools();
  return status;
}
