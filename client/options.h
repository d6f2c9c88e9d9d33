#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "net/address.h"

namespace CLI {
class App;
}

// The options, commands and other words that a command line may have, and the help about them.
// CLI11 checks the words and prints the help. Only options.cc includes its header, which takes long
// to compile. Two things are different from what CLI11 does:
//
// - An option takes its value after "=" or ":", as the daemon's settings do, and never from the
//   next word. CLI11 knows this form as a flag with a value, so options with a value are flags to
//   CLI11, and `Parse` writes "=" for ":".
// - KESTREL_SOCKET wins over --socket. To CLI11 a variable is only a default.
//
// A grammar is a handle: its copies are the same grammar. `Parse` stores the values in the strings
// that the functions "Add..." get, so the strings must exist until `Parse` has returned.
class Grammar {
 public:
  // `name` is that of the program in the help.
  explicit Grammar(std::string const& name);

  // The help begins with `description` and ends with `footer`.
  void Describe(std::string const& description, std::string const& footer);

  // One of the commands must be among the words; options may follow it. Returns the grammar of the
  // words that only this command takes.
  Grammar AddCommand(std::string const& name, std::string const& meaning);

  // `form` is what the help shows after the name, such as "=FILE". A name that ends in "{}" makes
  // an option without a value the same as one with an empty value.
  void AddOption(std::string const& name, std::string& value, std::string const& form,
                 std::string const& meaning);

  // Adds --socket, with its default as the value. `GetAddress` reads the value.
  void AddSocketOption(std::string& value);

  // Adds --timeout, whose value `ParseTimeout` reads.
  void AddTimeoutOption(std::string& value, std::string const& meaning);

  // Lists an option in the help. The program handles it before `Parse` gets the words; what still
  // arrives is "--help=VALUE".
  void ListOption(std::string const& name, std::string const& form, std::string const& meaning);

  // Lists --help and --version.
  void ListCommonOptions();

  // Adds a word that is not an option and must not be missing.
  void AddWord(std::string const& name, std::string& value, std::string const& meaning);

  // Accepts any number of words that are not options, and stores none.
  void IgnoreWords(std::string const& name, std::string const& meaning);

  // Accepts an option, with a value or without one. The help does not show it.
  void IgnoreOption(std::string const& name);

  // Throws Base::Exception, with one line for the user, when the words are wrong.
  void Parse(std::span<char const* const> words);

  // After `Parse`: whether `option`, which the grammar must have, was among the words; the command.
  bool IsGiven(std::string const& option) const;
  std::string GetCommand() const;

  bool HasCommand(std::string_view name) const;
  std::string GetHelp() const;

 private:
  explicit Grammar(std::shared_ptr<CLI::App> app);

  std::shared_ptr<CLI::App> _app;
};

// Whether an option that needs no value is on. "--name" is, and a value can say it: "true" or "1",
// "false" or "0". `value` is "false" before the words are parsed. Throws Base::Exception, with one
// line for the user, for any other value: a user who has written "--no-redact=yes" or "--yes=no"
// must not get the opposite.
bool IsOn(std::string const& name, std::string const& value);

// Throws Base::Exception, with one line for the user, unless `text` is a number of seconds from 1
// to 86400.
std::chrono::seconds ParseTimeout(std::string const& text);

// Returns the daemon's address: KESTREL_SOCKET if the argument store has it, else `socket`. An
// empty KESTREL_SOCKET stands for the default. Throws Base::Exception when the address cannot be
// used.
Net::Address GetAddress(std::string const& socket);

// Removes the KESTREL_ variables from the environment, because they are settings of the daemon:
// KESTREL_TRACE_CONSOLE, for example, would put a trace between the lines of a response. Keeps only
// KESTREL_SOCKET, which is for the client, too, also in the argument store. Call it before there is
// a second thread.
void UnsetDaemonSettings();

// For the argument store: commands of the client have the deadlines of their callers only.
inline constexpr char const* noCommandTimeout = "--command-timeout=0";
