#include "client/command_line.h"

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "base/exception.h"
#include "client/options.h"
#include "utilities/arguments/arguments.h"

// To add a command, declare it in `Options`. `--trace-` options go to the argument store, where the
// trace log looks for its settings; the grammar only lists them in the help.

namespace {

constexpr char const* requestDescription =
    "Sends a request to ktclientd and prints the response as JSON.";
constexpr char const* requestStatuses =
    "Exit status: 0 if the status of the response is \"Success\"; 1 if it is another one;\n"
    "2 for wrong usage; 3 if there is no daemon, no response in time, or a broken one.";
constexpr char const* doctorStatuses =
    "Exit status: 0 if all is well; 1 after a warning; 2 after a failure, and for wrong\n"
    "usage; 3 if the results could not be printed.";
constexpr char const* nativeHostStatuses =
    "Exit status: 0 at the end of the input, or when nobody reads the output; 2 for wrong\n"
    "usage, and after input that is no request; 3 if there is no daemon, no response in\n"
    "time, or one that browsers do not take.";

struct Options {
  Options() : grammar("ktclientctl") {
    grammar.AddCommand("hardware", "The BIOS serial number");
    grammar.AddCommand("igel", "The IGEL management certificates");
    AddRequest(
        grammar.AddCommand("send", "Any request: send JSON; \"-\" reads it from standard input"));
    grammar.AddCommand("doctor", "Find out why requests fail");
    // Listed for the help only: another program has it.
    grammar.AddCommand("report", "An archive for the support");
    Grammar nativeHost =
        grammar.AddCommand("native-host", "Passes on requests of browser extensions");
    IgnoreBrowserWords(nativeHost);
    nativeHost.IgnoreOption("--parent-window");

    grammar.AddSocketOption(socket);
    grammar.AddTimeoutOption(timeout, "How long to wait for the response (default: 30)");
    grammar.AddOption("--compact", compact, "", "Print JSON on one line");
    grammar.AddOption("--json", asJson, "", "Print the results of doctor as JSON");
    ListTraceOptions("standard output");
    grammar.ListCommonOptions();
    grammar.Describe(
        requestDescription,
        std::string(requestStatuses) +
            "\nktclientctl COMMAND --help has the options and the statuses of one command.");
  }

  // The help of one command.
  explicit Options(std::string const& command) : grammar("ktclientctl " + command) {
    bool const isDoctor = command == "doctor";
    bool const isNativeHost = command == "native-host";
    if (command == "send") AddRequest(grammar);
    if (isNativeHost) IgnoreBrowserWords(grammar);
    grammar.AddSocketOption(socket);
    std::string const limit = isDoctor       ? "How long each check may take"
                              : isNativeHost ? "How long to wait for each response"
                                             : "How long to wait for the response";
    grammar.AddTimeoutOption(timeout, limit + " (default: 30)");
    if (isDoctor) grammar.AddOption("--json", asJson, "", "Print the results as JSON");
    if (!isNativeHost) grammar.AddOption("--compact", compact, "", "Print JSON on one line");
    ListTraceOptions(isNativeHost ? "standard error" : "standard output");
    grammar.ListCommonOptions();
    if (isDoctor) {
      grammar.Describe("Finds out why requests fail, and says what to do.", doctorStatuses);
    } else if (isNativeHost) {
      grammar.Describe("Passes on requests of browser extensions. A browser starts this command.",
                       nativeHostStatuses);
    } else {
      grammar.Describe(requestDescription, requestStatuses);
    }
  }

  void AddRequest(Grammar parent) {
    parent.AddWord("JSON", json, "The request; \"-\" reads it from standard input");
  }

  // Browsers add words: the extension's origin; or the path of the host manifest and an id.
  static void IgnoreBrowserWords(Grammar parent) {
    parent.IgnoreWords("WORD", "Ignored: browsers add words of their own");
  }

  void ListTraceOptions(std::string const& stream) {
    grammar.ListOption("--trace-console", "", "Print the trace to " + stream + ", too");
    grammar.ListOption("--trace-level", "=LEVEL",
                       "The level of the trace, from 0 to 5 (default: 4)");
  }

  Grammar grammar;
  std::string socket;
  std::string timeout = "30";
  std::string compact = "false";
  std::string json;
  std::string asJson = "false";
};

bool IsTraceOption(std::string_view word) {
  return NormaliseArgumentName(word).starts_with("__trace_");
}

// Reads no more than is necessary to see that the text is too long.
std::string ReadStandardInput() {
  std::string text(maxRequestSize + 1, '\0');
  std::cin.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(std::cin.gcount()));
  return text;
}

std::string CheckRequest(std::string request) {
  if (request.size() > maxRequestSize) {
    throw Base::Exception("The request is longer than " + std::to_string(maxRequestSize) +
                          " bytes");
  }
  if (!nlohmann::json::accept(request)) throw Base::Exception("The request is not valid JSON");
  return request;
}

std::string MakeRequest(std::string const& command, Options const& options) {
  if (command == "doctor" || command == "native-host") return {};
  if (command == "send")
    return CheckRequest(options.json == "-" ? ReadStandardInput() : options.json);
  return nlohmann::json{{"sensor", {{command, nullptr}}}}.dump();
}

}  // namespace

std::string_view GetCommandName(int argc, char const* const* argv) {
  for (int i = 1; i < argc; ++i) {
    std::string_view const word = argv[i];
    if (!word.starts_with("-")) return word;
  }
  return {};
}

CommandLine ReadCommandLine(int argc, char const* const* argv) {
  std::vector<char const*> settings{noCommandTimeout};
  std::vector<char const*> others;
  std::partition_copy(argv + std::min(argc, 1), argv + argc, std::back_inserter(settings),
                      std::back_inserter(others), IsTraceOption);
  ParseArguments(static_cast<int>(settings.size()), settings.data());

  Options options;
  options.grammar.Parse(others);

  CommandLine commandLine;
  commandLine.address = GetAddress(options.socket);
  commandLine.timeout = ParseTimeout(options.timeout);
  commandLine.compact = IsOn("--compact", options.compact);
  commandLine.command = options.grammar.GetCommand();
  commandLine.json = IsOn("--json", options.asJson);
  commandLine.request = MakeRequest(commandLine.command, options);
  return commandLine;
}

std::string GetHelp(std::string_view command) {
  Options const options;
  return options.grammar.HasCommand(command) ? Options(std::string(command)).grammar.GetHelp()
                                             : options.grammar.GetHelp();
}
