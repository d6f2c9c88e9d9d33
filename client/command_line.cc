#include "client/command_line.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "base/exception.h"
#include "base/maybe.h"
#include "utilities/arguments/arguments.h"

namespace {

constexpr std::int64_t defaultTimeoutSeconds = 30;
constexpr std::int64_t maxTimeoutSeconds = 86400;
constexpr std::size_t maxRequestSize = 131072;  // the daemon ends the connection above it

constexpr char const* packagedSocket = "/run/ktclientd/ktclientd.sock";

constexpr auto options = std::to_array<std::string_view>({"socket", "timeout", "compact"});

void CheckOption(Argument const& argument) {
  std::string const name = NormaliseArgumentName(argument.name);
  bool const isKnown =
      std::ranges::find(options, name) != options.end() || name.starts_with("trace_");
  if (!isKnown) throw Base::Exception("Unknown option " + argument.text);
  bool const isFlag = (argument.kind & argumentFlag) != 0;
  if (isFlag && (name == "socket" || name == "timeout")) {
    throw Base::Exception("Option " + argument.text + " needs a value");
  }
}

// The words of the command line after the program's name.
std::vector<std::string> ReadWords() {
  std::vector<std::string> words;
  for (Argument const& argument : GetArguments()) {
    if ((argument.kind & argumentFromCommandLine) == 0) continue;
    if ((argument.kind & argumentField) != 0) {
      words.push_back(argument.text);
    } else {
      CheckOption(argument);
    }
  }
  if (!words.empty()) words.erase(words.begin());
  return words;
}

std::string CheckRequest(std::string request) {
  if (request.size() > maxRequestSize) {
    throw Base::Exception("The request is longer than " + std::to_string(maxRequestSize) +
                          " bytes");
  }
  if (!nlohmann::json::accept(request)) throw Base::Exception("The request is not valid JSON");
  return request;
}

// As much as it takes to see that it is too long.
std::string ReadStandardInput() {
  std::string text(maxRequestSize + 1, '\0');
  std::cin.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(std::cin.gcount()));
  return text;
}

std::string ReadRequest(std::vector<std::string> const& words) {
  if (words.empty()) throw Base::Exception("Nothing to ask");
  std::string const& command = words[0];
  if (command == "send") {
    if (words.size() != 2) throw Base::Exception("\"send\" takes one JSON text");
    return CheckRequest(words[1] == "-" ? ReadStandardInput() : words[1]);
  }
  if (command != "hardware" && command != "igel") {
    throw Base::Exception("Unknown command " + command);
  }
  if (words.size() != 1) throw Base::Exception("\"" + command + "\" takes nothing");
  return nlohmann::json{{"sensor", {{command, nullptr}}}}.dump();
}

// The packaged service's socket where there is one, also where this user may not look at it.
std::string GetDefaultAddress() {
  struct stat file {};
  bool const isAbsent = stat(packagedSocket, &file) == -1 && (errno == ENOENT || errno == ENOTDIR);
  return isAbsent ? "com.norvel.kestrel" : packagedSocket;
}

Net::Address ReadAddress() {
  std::string const text = GetArgument("socket", GetDefaultAddress());
  try {
    return Net::Address::FromUnixText(text);
  } catch (Base::Exception const&) {
    throw Base::Exception("The socket's address is empty or too long");
  }
}

std::chrono::seconds ReadTimeout() {
  if (!HasArgument("timeout")) return std::chrono::seconds(defaultTimeoutSeconds);
  Base::Maybe<std::int64_t> const timeout = GetInt64Argument("timeout");
  if (!timeout || timeout.Get() < 1 || timeout.Get() > maxTimeoutSeconds) {
    throw Base::Exception("The timeout is not a number of seconds from 1 to " +
                          std::to_string(maxTimeoutSeconds));
  }
  return std::chrono::seconds(timeout.Get());
}

}  // namespace

CommandLine ReadCommandLine() {
  CommandLine commandLine;
  std::vector<std::string> const words = ReadWords();
  commandLine.address = ReadAddress();
  commandLine.timeout = ReadTimeout();
  commandLine.compact = GetBoolArgument("compact", false);
  commandLine.request = ReadRequest(words);
  return commandLine;
}

char const* GetUsage() {
  return "Usage: ktclientctl [--socket=ADDRESS] [--timeout=SECONDS] [--compact] COMMAND\n"
         "Asks ktclientd a question and prints its answer as JSON.\n"
         "\n"
         "  hardware     the BIOS serial number\n"
         "  igel         the IGEL management certificates\n"
         "  send JSON    any request; \"-\" reads it from standard input\n"
         "\n"
         "  --socket=ADDRESS     where the daemon listens: a path if it has a \"/\", else a name "
         "in\n"
         "                       the abstract namespace (environment: KESTREL_SOCKET, which wins;\n"
         "                       default: /run/ktclientd/ktclientd.sock where that is, else\n"
         "                       com.norvel.kestrel)\n"
         "  --timeout=SECONDS    how long to wait for the answer (default: 30)\n"
         "  --compact            print the answer on one line\n"
         "  --trace-console      trace to standard output, at --trace-level=LEVEL\n"
         "  --help, --version    print this or the version and exit\n"
         "\n"
         "Exit status: 0 on \"Success\", 1 on any other status, 2 on wrong usage, 3 when there is "
         "no\n"
         "daemon, no answer in time, or a broken one.\n";
}
