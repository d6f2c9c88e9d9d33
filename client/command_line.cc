#include "client/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstddef>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/exception.h"
#include "client/options.h"
#include "utilities/arguments/arguments.h"

// To add a command, declare it in `Grammar`. `--trace-` options go to the argument store, where the
// trace log looks for its settings; CLI11 only lists them in the help.

namespace {

constexpr int maxTimeoutSeconds = 86400;

struct Grammar {
  Grammar() {
    PrepareApp(app);

    AddCommand(app, "hardware", "The BIOS serial number");
    AddCommand(app, "igel", "The IGEL management certificates");
    AddCommand(app, "send", "Any request: send JSON; \"-\" reads it from standard input")
        ->add_option("JSON", json)
        ->required();
    AddCommand(app, "doctor", "Find out why requests fail");
    // Listed for the help only: another program has it.
    AddCommand(app, "report", "An archive for the support: see ktclientctl report --help");
    // Browsers add words: the extension's origin; or the path of the host manifest and an id.
    CLI::App* const nativeHost =
        AddCommand(app, "native-host", "Passes on requests of browser extensions");
    nativeHost->add_option("WORD", ignoredWords, "Ignored: browsers add words of their own");
    nativeHost->add_flag("--parent-window{}", ignoredWindow)->group("");

    AddSocketOption(app, socket);
    AddOption(app, "--timeout{}", timeout, "=SECONDS",
              "How long to wait for the response (default: 30)");
    AddOption(app, "--compact", compact, "", "Print JSON on one line");
    AddOption(app, "--json", asJson, "", "Print the results of doctor as JSON");
    ListOption(app, "--trace-console", "", "Print the trace to standard output, too");
    ListOption(app, "--trace-level", "=LEVEL", "The level of the trace, from 0 to 5 (default: 4)");
    ListCommonOptions(app);

    app.footer(
        "Exit status: 0 if the status of the response is \"Success\"; 1 if it is another one;\n"
        "2 for wrong usage; 3 if there is no daemon, no response in time, or a broken one.\n"
        "Of doctor: 0 if all is well, 1 after a warning, 2 after a failure.");
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

std::chrono::seconds ParseTimeout(std::string const& text) {
  int seconds = 0;
  char const* const textEnd = text.data() + text.size();
  auto const [end, error] = std::from_chars(text.data(), textEnd, seconds);
  if (error != std::errc() || end != textEnd || seconds < 1 || seconds > maxTimeoutSeconds) {
    throw Base::Exception("The timeout is not a number of seconds from 1 to " +
                          std::to_string(maxTimeoutSeconds));
  }
  return std::chrono::seconds(seconds);
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
  std::vector<char const*> traceOptions;
  std::vector<char const*> others;
  std::partition_copy(argv + std::min(argc, 1), argv + argc, std::back_inserter(traceOptions),
                      std::back_inserter(others), IsTraceOption);
  ParseArguments(static_cast<int>(traceOptions.size()), traceOptions.data());

  Grammar grammar;
  ParseWords(grammar.app, others);

  CommandLine commandLine;
  commandLine.address = GetAddress(grammar.socket);
  commandLine.timeout = ParseTimeout(grammar.timeout);
  commandLine.compact = IsOn(grammar.compact);
  commandLine.command = grammar.app.get_subcommands()[0]->get_name();
  commandLine.json = IsOn(grammar.asJson);
  commandLine.request = MakeRequest(commandLine.command, grammar);
  return commandLine;
}

std::string GetHelp() { return Grammar().app.help(); }
