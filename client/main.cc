#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
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
#include "base/string_conversion.h"
#include "client/command_line.h"
#include "client/exchange.h"
#include "utilities/arguments/arguments.h"

namespace {

enum class ExitStatus : int { Success = 0, OtherStatus = 1, WrongUsage = 2, NoResponse = 3 };

// Beside the ASCII controls: the C1 controls, which are commands to a terminal; line and paragraph
// separators; and the bidirectional controls, which show a text in another order.
bool IsControl(wchar_t c) {
  return (c >= 0x7F && c <= 0x9F) || c == 0x61C || c == 0x200E || c == 0x200F ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

// Replaces each control by its escape sequence in JSON. Leaves ASCII controls but DEL alone.
std::string EscapeControls(std::string_view text) {
  std::wstring escaped;
  for (wchar_t const c : Base::ToWide(text)) {
    if (!IsControl(c)) {
      escaped += c;
      continue;
    }
    constexpr std::wstring_view digits = L"0123456789abcdef";
    escaped += L"\\u";
    for (int shift = 12; shift >= 0; shift -= 4) escaped += digits[(c >> shift) & 0xF];
  }
  return Base::ToUtf8(escaped);
}

// Prints one line: `reason` can hold text of the user or of the server, with control characters.
int ExitWithError(ExitStatus status, std::string reason) {
  std::ranges::replace_if(
      reason, [](char c) { return static_cast<unsigned char>(c) < ' '; }, ' ');
  std::cerr << "ktclientctl: " + EscapeControls(reason) + "\n";
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

// Whether valid JSON is small enough to be parsed and printed: printing is recursive, and its
// indentation can be much longer than the text. The daemon's responses have only a few levels.
bool IsSmall(std::string_view json) {
  constexpr int maxDepth = 20;
  constexpr int maxValues = 1'000'000;
  int depth = 0;
  int values = 1;
  bool isInText = false;
  for (std::size_t i = 0; i < json.size() && depth <= maxDepth && values <= maxValues; ++i) {
    char const c = json[i];
    if (c == '"') {
      isInText = !isInText;
    } else if (isInText) {
      if (c == '\\') ++i;
    } else if (c == '[' || c == '{') {
      ++depth;
      ++values;
    } else if (c == ']' || c == '}') {
      --depth;
    } else if (c == ',') {
      ++values;
    }
  }
  return depth <= maxDepth && values <= maxValues;
}

int PrintResponse(std::string const& text, bool compact) {
  // Without a callback: with one, the time to parse grows with the square of the length.
  auto const response =
      IsSmall(text) ? nlohmann::json::parse(text, nullptr, false) : nlohmann::json();
  bool const isValid = response.contains("status") && response["status"].is_string();
  if (!isValid) return ExitWithError(ExitStatus::NoResponse, "The daemon's response is broken");
  std::cout << EscapeControls(response.dump(compact ? -1 : 2)) << "\n" << std::flush;
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
