#include "client/command_line.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "base/exception.h"
#include "base/text.h"
#include "utilities/arguments/arguments.h"

// CLI11 knows the options and the commands, checks the words against them and prints the help. To
// add a command, declare it in `Grammar`. Three things are different from what CLI11 does:
//
// - An option takes its value after "=" or ":", as the daemon's settings do, and never from the
//   next word. CLI11 knows this form as a flag with a value, so options with a value are flags to
//   CLI11, and `GetWordsForGrammar` writes "=" for ":".
// - `--trace-` options go to the argument store, where the trace log looks for its settings. CLI11
//   only lists them in the help.
// - KESTREL_SOCKET wins over --socket. To CLI11 a variable is only a default.

namespace {

constexpr int maxTimeoutSeconds = 86400;

constexpr char const* packagedSocket = "/run/ktclientd/ktclientd.sock";

// Shows an option as "--name=VALUE".
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() {
    column_width(24);
    label("OPTIONS", "OPTION...");
    label("SUBCOMMAND", "COMMAND");
  }

  std::string make_option_name(CLI::Option const* option, bool isPositional) const override {
    return option->get_name(isPositional);
  }

  std::string make_option_opts(CLI::Option const* option) const override {
    return option->get_option_text();
  }
};

struct Grammar {
  Grammar() {
    app.formatter(std::make_shared<HelpFormatter>());
    app.fallthrough();  // options may follow the command
    app.require_subcommand(1);

    AddCommand("hardware", "The BIOS serial number");
    AddCommand("igel", "The IGEL management certificates");
    AddCommand("send", "Any request: send JSON; \"-\" reads it from standard input")
        ->add_option("JSON", json)
        ->required();
    AddCommand("doctor", "Find out why requests fail")
        ->add_flag("--json", isJson, "Print the results as JSON");
    // Listed for the help only: another program has it.
    AddCommand("report", "An archive for the support: see ktclientctl report --help");
    // Browsers add words: the extension's origin; or the path of the host manifest and an id.
    CLI::App* const nativeHost =
        AddCommand("native-host", "Passes on requests of browser extensions");
    nativeHost->add_option("WORD", ignoredWords, "Ignored: browsers add words of their own");
    nativeHost->add_flag("--parent-window{}", ignoredWindow)->group("");

    // "{}": without a value the option is as it is with an empty one, which is no valid value.
    AddOption("--socket{}", socket, "=ADDRESS",
              "Where the daemon listens: a path if it has a \"/\",\n"
              "else a name in the abstract namespace.\n"
              "Environment: KESTREL_SOCKET, which wins.\n"
              "Default: /run/ktclientd/ktclientd.sock if it exists,\n"
              "else com.norvel.kestrel");
    AddOption("--timeout{}", timeout, "=SECONDS",
              "How long to wait for the response (default: 30)");
    AddOption("--compact", compact, "", "Print the response on one line");
    ListOption("--trace-console", "", "Print the trace to standard output, too");
    ListOption("--trace-level", "=LEVEL", "The level of the trace, from 0 to 5 (default: 4)");
    app.set_help_flag();
    ListOption("--help", "", "Print this help and exit");
    ListOption("--version", "", "Print the version and exit");

    app.footer(
        "Exit status: 0 if the status of the response is \"Success\"; 1 if it is another one;\n"
        "2 for wrong usage; 3 if there is no daemon, no response in time, or a broken one.");
  }

  CLI::App app{"Sends a request to ktclientd and prints the response as JSON.", "ktclientctl"};
  std::string socket;
  std::string timeout = "30";
  std::string compact = "false";
  std::string json;
  std::vector<std::string> ignoredWords;
  std::string ignoredWindow;
  bool isJson = false;  // the option of "doctor"

 private:
  CLI::App* AddCommand(std::string const& name, std::string const& meaning) {
    return app.add_subcommand(name, meaning)->group("Commands");
  }

  void AddOption(std::string const& name, std::string& value, std::string const& form,
                 std::string const& meaning) {
    app.add_flag(name, value, meaning)->option_text(form)->ignore_case();
  }

  // Lists an option in the help. The program handles it before CLI11 gets the words; what still
  // arrives is "--help=VALUE".
  void ListOption(std::string const& name, std::string const& form, std::string const& meaning) {
    app.add_flag(name)->description(meaning)->option_text(form)->check(
        [](std::string const&) { return std::string("the option takes no value"); });
  }
};

bool IsTraceOption(std::string_view word) {
  return NormaliseArgumentName(word).starts_with("__trace_");
}

// CLI11 takes the words last first.
std::vector<std::string> GetWordsForGrammar(std::span<char const* const> words) {
  std::vector<std::string> reversed(words.rbegin(), words.rend());
  for (std::string& word : reversed) {
    auto const separator = word.find_first_of(":=");
    if (word.starts_with("--") && separator != std::string::npos) word[separator] = '=';
  }
  return reversed;
}

void Parse(CLI::App& app, std::vector<std::string> words) {
  try {
    app.parse(std::move(words));
  } catch (CLI::ParseError const& err) {
    // CLI11 complains about a missing command before it complains about a word that it does not
    // know; the word is what the user has to correct.
    std::vector<std::string> const unknown = app.remaining(true);
    if (unknown.empty()) throw Base::Exception(err.what());
    bool const isOption = unknown[0].starts_with("-");
    bool const isCommand = app.get_subcommands().empty();
    throw Base::Exception((isOption    ? "Unknown option "
                           : isCommand ? "Unknown command "
                                       : "Unexpected argument ") +
                          unknown[0]);
  }
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

// The socket of the packaged service if it exists, even if this user has no access to its folder.
std::string GetDefaultAddress() {
  struct stat file {};
  bool const isAbsent = stat(packagedSocket, &file) == -1 && (errno == ENOENT || errno == ENOTDIR);
  return isAbsent ? "com.norvel.kestrel" : packagedSocket;
}

Net::Address ParseAddress(std::string const& text) {
  try {
    return Net::Address::FromUnixText(text);
  } catch (Base::Exception const&) {
    throw Base::Exception("The address of the socket is empty or too long");
  }
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
  std::vector<char const*> words(argv + std::min(argc, 1), argv + argc);
  auto const others = std::stable_partition(words.begin(), words.end(), IsTraceOption);
  ParseArguments(static_cast<int>(others - words.begin()), words.data());

  Grammar grammar;
  grammar.socket = GetDefaultAddress();
  Parse(grammar.app, GetWordsForGrammar({others, words.end()}));
  // From the environment; an empty variable has no value and stands for the default.
  if (HasArgument("socket")) grammar.socket = GetArgument("socket", GetDefaultAddress());

  CommandLine commandLine;
  commandLine.address = ParseAddress(grammar.socket);
  commandLine.timeout = ParseTimeout(grammar.timeout);
  std::string const compact = Base::LowerCased(grammar.compact);
  commandLine.compact = compact == "true" || compact == "1";
  commandLine.command = grammar.app.get_subcommands()[0]->get_name();
  commandLine.json = grammar.isJson;
  commandLine.request = MakeRequest(commandLine.command, grammar);
  return commandLine;
}

std::string GetHelp() { return Grammar().app.help(); }
