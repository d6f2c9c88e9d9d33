#include "client/command_line.h"

#include <CLI/CLI.hpp>
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

// To add a command, declare it in `Grammar`. `--trace-` options go to the argument store, where the
// trace log looks for its settings; CLI11 only lists them in the help.

namespace {

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

struct Grammar {
  Grammar() {
    PrepareApp(app);

    AddCommand(app, "hardware", "The BIOS serial number");
    AddCommand(app, "igel", "The IGEL management certificates");
    AddRequest(
        *AddCommand(app, "send", "Any request: send JSON; \"-\" reads it from standard input"));
    AddCommand(app, "doctor", "Find out why requests fail");
    // Listed for the help only: another program has it.
    AddCommand(app, "report", "An archive for the support");
    CLI::App* const nativeHost =
        AddCommand(app, "native-host", "Passes on requests of browser extensions");
    AddIgnoredWords(*nativeHost);
    nativeHost->add_flag("--parent-window{}", ignoredWindow);

    AddSocketOption(app, socket);
    AddTimeoutOption(app, timeout, "How long to wait for the response (default: 30)");
    AddOption(app, "--compact", compact, "", "Print JSON on one line");
    AddOption(app, "--json", asJson, "", "Print the results of doctor as JSON");
    ListTraceOptions("standard output");
    ListCommonOptions(app);
    app.footer(std::string(requestStatuses) +
               "\nktclientctl COMMAND --help has the options and the statuses of one command.");
  }

  // The help of one command.
  explicit Grammar(std::string const& command) {
    PrepareHelp(app);
    app.name("ktclientctl " + command);
    bool const isDoctor = command == "doctor";
    bool const isNativeHost = command == "native-host";
    if (command == "send") AddRequest(app);
    if (isNativeHost) AddIgnoredWords(app);
    AddSocketOption(app, socket);
    AddTimeoutOption(app, timeout,
                     isDoctor       ? "How long each check may take (default: 30)"
                     : isNativeHost ? "How long to wait for each response (default: 30)"
                                    : "How long to wait for the response (default: 30)");
    if (isDoctor) AddOption(app, "--json", asJson, "", "Print the results as JSON");
    if (!isNativeHost) AddOption(app, "--compact", compact, "", "Print JSON on one line");
    ListTraceOptions(isNativeHost ? "standard error" : "standard output");
    ListCommonOptions(app);
    if (isDoctor) {
      app.description("Finds out why requests fail, and says what to do.");
      app.footer(doctorStatuses);
    } else if (isNativeHost) {
      app.description("Passes on requests of browser extensions. A browser starts this command.");
      app.footer(nativeHostStatuses);
    } else {
      app.footer(requestStatuses);
    }
  }

  void AddRequest(CLI::App& parent) {
    parent.add_option("JSON", json, "The request; \"-\" reads it from standard input")->required();
  }

  // Browsers add words: the extension's origin; or the path of the host manifest and an id.
  void AddIgnoredWords(CLI::App& parent) {
    parent.add_option("WORD", ignoredWords, "Ignored: browsers add words of their own");
  }

  void ListTraceOptions(std::string const& stream) {
    ListOption(app, "--trace-console", "", "Print the trace to " + stream + ", too");
    ListOption(app, "--trace-level", "=LEVEL", "The level of the trace, from 0 to 5 (default: 4)");
  }

  CLI::App app{"Sends a request to ktclientd and prints the response as JSON.", "ktclientctl"};
  std::string socket;
  std::string timeout = "30";
  std::string compact = "false";
  std::string json;
  std::vector<std::string> ignoredWords;
  std::string ignoredWindow;
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

std::string MakeRequest(std::string const& command, Grammar const& grammar) {
  if (command == "doctor" || command == "native-host") return {};
  if (command == "send")
    return CheckRequest(grammar.json == "-" ? ReadStandardInput() : grammar.json);
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

  Grammar grammar;
  ParseWords(grammar.app, others);

  CommandLine commandLine;
  commandLine.address = GetAddress(grammar.socket);
  commandLine.timeout = ParseTimeout(grammar.timeout);
  commandLine.compact = IsOn("--compact", grammar.compact);
  commandLine.command = grammar.app.get_subcommands()[0]->get_name();
  commandLine.json = IsOn("--json", grammar.asJson);
  commandLine.request = MakeRequest(commandLine.command, grammar);
  return commandLine;
}

std::string GetHelp(std::string_view command) {
  Grammar const grammar;
  auto const found = grammar.app.get_subcommands(
      [command](CLI::App const* app) { return app->get_name() == command; });
  return found.empty() ? grammar.app.help() : Grammar(std::string(command)).app.help();
}
