#include "client/options.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "base/exception.h"
#include "base/text.h"
#include "utilities/arguments/arguments.h"

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

// CLI11 takes the words last first.
std::vector<std::string> GetWordsForGrammar(std::span<char const* const> words) {
  std::vector<std::string> reversed(words.rbegin(), words.rend());
  for (std::string& word : reversed) {
    auto const separator = word.find_first_of(":=");
    if (word.starts_with("--") && separator != std::string::npos) word[separator] = '=';
  }
  return reversed;
}

// The socket of the packaged service if it exists, even if this user has no access to its folder.
std::string GetDefaultAddress() {
  struct stat file {};
  bool const isAbsent = stat(packagedSocket, &file) == -1 && (errno == ENOENT || errno == ENOTDIR);
  return isAbsent ? "com.norvel.kestrel" : packagedSocket;
}

}  // namespace

void PrepareApp(CLI::App& app) {
  PrepareHelp(app);
  app.fallthrough();
  app.require_subcommand(1);
}

void PrepareHelp(CLI::App& app) {
  app.formatter(std::make_shared<HelpFormatter>());
  app.set_help_flag();
}

CLI::App* AddCommand(CLI::App& app, std::string const& name, std::string const& meaning) {
  return app.add_subcommand(name, meaning)->group("Commands");
}

void AddOption(CLI::App& app, std::string const& name, std::string& value, std::string const& form,
               std::string const& meaning) {
  app.add_flag(name, value, meaning)->option_text(form)->ignore_case();
}

void AddSocketOption(CLI::App& app, std::string& value) {
  value = GetDefaultAddress();
  AddOption(app, "--socket{}", value, "=ADDRESS",
            "Where the daemon listens: a path if it has a \"/\",\n"
            "else a name in the abstract namespace.\n"
            "Environment: KESTREL_SOCKET, which wins.\n"
            "Default: /run/ktclientd/ktclientd.sock if it exists,\n"
            "else com.norvel.kestrel");
}

void ListOption(CLI::App& app, std::string const& name, std::string const& form,
                std::string const& meaning) {
  app.add_flag(name)->description(meaning)->option_text(form)->check(
      [](std::string const&) { return std::string("the option takes no value"); });
}

void ListCommonOptions(CLI::App& app) {
  ListOption(app, "--help", "", "Print this help and exit");
  ListOption(app, "--version", "", "Print the version and exit");
}

void ParseWords(CLI::App& app, std::span<char const* const> words) {
  try {
    app.parse(GetWordsForGrammar(words));
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

bool IsOn(std::string const& name, std::string const& value) {
  std::string const lower = Base::LowerCased(value);
  if (lower == "true" || lower == "1") return true;
  if (lower == "false" || lower == "0") return false;
  throw Base::Exception(name + " takes no value, or true, 1, false or 0, not \"" + value + "\"");
}

void AddTimeoutOption(CLI::App& app, std::string& value, std::string const& meaning) {
  AddOption(app, "--timeout{}", value, "=SECONDS", meaning);
}

std::chrono::seconds ParseTimeout(std::string const& text) {
  auto const seconds = Base::ParseNumber<int>(text);
  if (!seconds || seconds.Get() < 1 || seconds.Get() > maxTimeoutSeconds) {
    throw Base::Exception("The timeout is not a number of seconds from 1 to " +
                          std::to_string(maxTimeoutSeconds));
  }
  return std::chrono::seconds(seconds.Get());
}

Net::Address GetAddress(std::string const& socket) {
  try {
    return Net::Address::FromUnixText(
        HasArgument("socket") ? GetArgument("socket", GetDefaultAddress()) : socket);
  } catch (Base::Exception const&) {
    throw Base::Exception("The address of the socket is empty or too long");
  }
}

void UnsetDaemonSettings() {
  ParseArguments();
  for (Argument const& argument : GetArguments()) {
    if (NormaliseArgumentName(argument.name) == "socket") continue;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the process has only this thread so far
    unsetenv(argument.text.substr(0, argument.text.find('=')).c_str());
  }
  ParseArguments(1, &noCommandTimeout);
}
