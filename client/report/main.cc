#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

#include "base/exception.h"
#include "base/standard_streams.h"
#include "base/text.h"
#include "client/deadline.h"
#include "client/options.h"
#include "client/output.h"
#include "client/report/report.h"
#include "support/error.h"
#include "utilities/arguments/arguments.h"

namespace {

struct Grammar {
  Grammar() {
    PrepareApp(app);
    AddCommand(app, "report", "Write the archive");
    AddOption(app, "--output{}", output, "=FILE",
              "The archive; no file of this name may exist (default:\n"
              "ktclientd-report-HOST-TIME.tar.gz in this folder)");
    AddOption(app, "--include-answers", includeAnswers, "",
              "Add the answers of the sensors, redacted, too");
    AddOption(app, "--no-redact", noRedact, "", "Replace nothing; asks before");
    AddOption(app, "--yes", yes, "", "Do not ask");
    AddOption(app, "--rules{}", rules, "=FILE",
              "More values to replace: lines of a name and a regular\n"
              "expression");
    AddSocketOption(app, socket);
    ListCommonOptions(app);
    app.footer(
        "Prints the path of the archive. The README in the archive lists what is inside, what was\n"
        "replaced how often, and what is missing and why.\n"
        "Exit status: 0 if the archive was written; 1 if you did not agree; 2 for wrong usage;\n"
        "3 if the archive could not be written.");
  }

  CLI::App app{
      "Writes an archive for the support of ktclientd, with names, numbers and secrets\n"
      "replaced by placeholders.",
      "ktclientctl"};
  std::string output;
  std::string includeAnswers = "false";
  std::string noRedact = "false";
  std::string yes = "false";
  std::string rules;
  std::string socket;
};

struct CommandLine {
  ReportOptions report;
  bool yes = false;
};

CommandLine ReadWords(int argc, char const* const* argv) {
  Grammar grammar;
  ParseWords(grammar.app, {argv + std::min(argc, 1), argv + argc});
  for (auto const& [name, value] :
       {std::pair("--output", &grammar.output), {"--rules", &grammar.rules}})
    if (grammar.app.count(name) > 0 && value->empty())
      throw Base::Exception(std::string(name) + " needs the name of a file");
  return {.report = {.address = GetAddress(grammar.socket),
                     .output = grammar.output,
                     .includeAnswers = IsOn(grammar.includeAnswers),
                     .isRedacted = !IsOn(grammar.noRedact),
                     .rulesFile = grammar.rules},
          .yes = IsOn(grammar.yes)};
}

void Warn() {
  std::cerr
      << "Nothing will be replaced: the archive will hold the names, addresses, serial numbers "
         "and\nsecrets of this machine.\n";
}

// Reads one line, byte by byte: what follows it is for another program.
std::string ReadLine() {
  std::string line;
  char c = '\0';
  while (line.size() < 100 && read(STDIN_FILENO, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

bool Agrees() {
  std::cerr << "Write it? [y/N] " << std::flush;
  std::string const answer = Base::LowerCased(Base::TrimWhiteSpace(ReadLine()));
  return answer == "y" || answer == "yes";
}

std::string GetText(Support::Error const& error) {
  std::string text = error.what();
  if (error.GetFields().contains("path"))
    text += " " + error.GetFields()["path"].get<std::string>() + ".";
  return error.GetAdvice().empty() ? text : text + " " + error.GetAdvice() + ".";
}

int Run(ReportOptions const& options) {
  try {
    return Print(EscapeControls(WriteReport(options)) + "\n");
  } catch (Support::Error const& err) {
    bool const isRule = err.GetCode().starts_with("redaction-rule");
    return ExitWithError(isRule ? ExitStatus::WrongUsage : ExitStatus::NoResponse, GetText(err));
  } catch (std::exception const& err) {
    return ExitWithError(ExitStatus::NoResponse, err.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (IsWordOfCommandLine(argc, argv, "--help")) return Print(Grammar().app.help());
  if (IsWordOfCommandLine(argc, argv, "--version"))
    return Print("ktclientctl-report " KTCLIENTD_VERSION "\n");
  bool const canPrint = fcntl(STDOUT_FILENO, F_GETFD) != -1;
  Base::OpenMissingStandardStreams();
  if (!canPrint) return ExitWithError(ExitStatus::NoResponse, "Standard output is closed");
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  UnsetDaemonSettings();
  CommandLine commandLine;
  try {
    commandLine = ReadWords(argc, argv);
  } catch (Base::Exception const& err) {
    return ExitWithError(ExitStatus::WrongUsage,
                         std::string(err.what()) + " (see ktclientctl report --help)");
  }
  if (!commandLine.report.isRedacted) {
    if (!commandLine.yes && isatty(STDIN_FILENO) != 1)
      return ExitWithError(ExitStatus::WrongUsage,
                           "--no-redact asks on a terminal; without one, add --yes");
    Warn();
    if (!commandLine.yes && !Agrees())
      return ExitWithError(ExitStatus::OtherStatus, "Nothing was written");
  }
  return FinishProgram(Run(commandLine.report));
}
