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

enum class ExitStatus : int { Success = 0, OtherStatus = 1, WrongUsage = 2, NoResponse = 3 };

// Prints one line: `reason` can hold text of the user or of the server, with control characters.
int ExitWithError(ExitStatus status, std::string reason) {
  std::ranges::replace_if(
      reason, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; }, ' ');
  std::cerr << "ktclientctl: " + reason + "\n";
  return static_cast<int>(status);
}

// Returns the response's JSON.
std::string SendRequest(CommandLine const& commandLine) {
  auto const exchange = Base::MakeShared<Exchange>(commandLine.address, commandLine.request);
  std::future<Exchange::Outcome> future = exchange->Start();
  if (future.wait_for(commandLine.timeout) != std::future_status::ready) {
    throw Base::Exception("No response within " + std::to_string(commandLine.timeout.count()) +
                          " seconds");
  }
  Exchange::Outcome outcome = future.get();
  if (!outcome.isResponse) throw Base::Exception(outcome.text);
  return std::move(outcome.text);
}

// Printing is recursive. The daemon's responses have only a few levels.
bool RefuseDeepNesting(int depth, nlohmann::json::parse_event_t /*event*/,
                       nlohmann::json const& /*parsed*/) {
  constexpr int maxDepth = 100;
  if (depth > maxDepth) throw Base::Exception("The daemon's response is broken");
  return true;
}

int PrintResponse(std::string const& text, bool compact) {
  auto const response = nlohmann::json::parse(text, &RefuseDeepNesting, false);
  bool const isValid = response.contains("status") && response["status"].is_string();
  if (!isValid) return ExitWithError(ExitStatus::NoResponse, "The daemon's response is broken");
  std::cout << response.dump(compact ? -1 : 2) << "\n" << std::flush;
  if (!std::cout) return ExitWithError(ExitStatus::NoResponse, "Cannot print the response");
  auto const status = response["status"].get<std::string>();
  if (status == "Success") return static_cast<int>(ExitStatus::Success);
  bool const hasMessage =
      response.contains("error_message") && response["error_message"].is_string();
  return ExitWithError(ExitStatus::OtherStatus,
                       "The daemon answered " + status +
                           (hasMessage ? ": " + response["error_message"].get<std::string>() : ""));
}

int Run(CommandLine const& commandLine) {
  try {
    std::string const text = SendRequest(commandLine);
    return PrintResponse(text, commandLine.compact);
  } catch (std::exception const& err) {
    return ExitWithError(ExitStatus::NoResponse, err.what());
  }
}

// The KESTREL_ variables are settings of the daemon. KESTREL_TRACE_CONSOLE, for example, would put
// a trace between the lines of the response. Only KESTREL_SOCKET is for both programs.
void UnsetDaemonSettings() {
  ParseArguments();
  for (Argument const& argument : GetArguments()) {
    if (NormaliseArgumentName(argument.name) == "socket") continue;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the process has only this thread so far
    unsetenv(argument.text.substr(0, argument.text.find('=')).c_str());
  }
}

int Print(std::string_view text) {
  std::cout << text << std::flush;
  return std::cout ? 0 : ExitWithError(ExitStatus::NoResponse, "Cannot print");
}

}  // namespace

int main(int argc, char** argv) {
  if (IsWordOfCommandLine(argc, argv, "--help")) return Print(GetHelp());
  if (IsWordOfCommandLine(argc, argv, "--version"))
    return Print("ktclientctl " KTCLIENTD_VERSION "\n");
  bool const canPrint = fcntl(STDOUT_FILENO, F_GETFD) != -1;
  Base::OpenMissingStandardStreams();
  if (!canPrint) return ExitWithError(ExitStatus::NoResponse, "Standard output is closed");
  // When the daemon or the reader of standard output is gone, the write fails with EPIPE.
  signal(SIGPIPE, SIG_IGN);
  UnsetDaemonSettings();
  CommandLine commandLine;
  try {
    commandLine = ReadCommandLine(argc, argv);
  } catch (Base::Exception const& err) {
    return ExitWithError(ExitStatus::WrongUsage,
                         std::string(err.what()) + " (see ktclientctl --help)");
  }
  int const status = Run(commandLine);
  Base::ShutdownThreadPools();
  return status;
}
