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

Grammar::Grammar(std::string const& name) : Grammar(std::make_shared<CLI::App>("", name)) {
  _app->formatter(std::make_shared<HelpFormatter>());
  _app->set_help_flag();
}

Grammar::Grammar(std::shared_ptr<CLI::App> app) : _app(std::move(app)) {}

void Grammar::Describe(std::string const& description, std::string const& footer) {
  _app->description(description)->footer(footer);
}

Grammar Grammar::AddCommand(std::string const& name, std::string const& meaning) {
  _app->fallthrough()->require_subcommand(1);
  CLI::App* const command = _app->add_subcommand(name, meaning)->group("Commands");
  return Grammar(_app->get_subcommand_ptr(command));
}

void Grammar::AddOption(std::string const& name, std::string& value, std::string const& form,
                        std::string const& meaning) {
  _app->add_flag(name, value, meaning)->option_text(form)->ignore_case();
}

void Grammar::AddSocketOption(std::string& value) {
  value = GetDefaultAddress();
  AddOption("--socket{}", value, "=ADDRESS",
            "Where the daemon listens: a path if it has a \"/\",\n"
            "else a name in the abstract namespace.\n"
            "Environment: KESTREL_SOCKET, which wins.\n"
            "Default: /run/ktclientd/ktclientd.sock if it exists,\n"
            "else com.norvel.kestrel");
}

void Grammar::AddTimeoutOption(std::string& value, std::string const& meaning) {
  AddOption("--timeout{}", value, "=SECONDS", meaning);
}

void Grammar::ListOption(std::string const& name, std::string const& form,
                         std::string const& meaning) {
  _app->add_flag(name)->description(meaning)->option_text(form)->check(
      [](std::string const&) { return std::string("the option takes no value"); });
}

void Grammar::ListCommonOptions() {
  ListOption("--help", "", "Print this help and exit");
  ListOption("--version", "", "Print the version and exit");
}

void Grammar::AddWord(std::string const& name, std::string& value, std::string const& meaning) {
  _app->add_option(name, value, meaning)->required();
}

void Grammar::IgnoreWords(std::string const& name, std::string const& meaning) {
  using Words = std::vector<std::string>;
  _app->add_option_function<Words>(
      name, [](Words const&) {}, meaning);
}

void Grammar::IgnoreOption(std::string const& name) { _app->add_flag(name)->group(""); }

void Grammar::Parse(std::span<char const* const> words) {
  try {
    _app->parse(GetWordsForGrammar(words));
  } catch (CLI::ParseError const& err) {
    // CLI11 complains about a missing command before it complains about a word that it does not
    // know; the word is what the user has to correct.
    std::vector<std::string> const unknown = _app->remaining(true);
    if (unknown.empty()) throw Base::Exception(err.what());
    bool const isOption = unknown[0].starts_with("-");
    bool const isCommand = _app->get_subcommands().empty();
    throw Base::Exception((isOption    ? "Unknown option "
                           : isCommand ? "Unknown command "
                                       : "Unexpected argument ") +
                          unknown[0]);
  }
}

bool Grammar::IsGiven(std::string const& option) const { return _app->count(option) > 0; }

std::string Grammar::GetCommand() const { return _app->get_subcommands()[0]->get_name(); }

bool Grammar::HasCommand(std::string_view name) const {
  auto const isNamed = [name](CLI::App const* command) { return command->get_name() == name; };
  return !_app->get_subcommands(isNamed).empty();
}

std::string Grammar::GetHelp() const { return _app->help(); }

bool IsOn(std::string const& name, std::string const& value) {
  std::string const lower = Base::LowerCased(value);
  if (lower == "true" || lower == "1") return true;
  if (lower == "false" || lower == "0") return false;
  throw Base::Exception(name + " takes no value, or true, 1, false or 0, not \"" + value + "\"");
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
