#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "base/exception.h"
#include "base/text.h"
#include "client/deadline.h"
#include "client/options.h"
#include "client/output.h"
#include "client/program.h"
#include "client/report/report.h"
#include "support/error.h"

namespace {

struct Options {
  Options() {
    grammar.Describe(
        "Writes an archive for the support of ktclientd, with names, numbers and secrets\n"
        "replaced by placeholders.",
        "Prints the path of the archive. The README in the archive lists what is inside, what was\n"
        "replaced how often, and what is missing and why.\n"
        "Exit status: 0 if the archive was written; 1 if you did not agree; 2 for wrong usage;\n"
        "3 if the archive could not be written, or would have names or numbers in clear.");
    grammar.AddOption("--output{}", output, "=FILE",
                      "The archive; no file of this name may exist (default:\n"
                      "ktclientd-report-HOST-TIME.tar.gz in this folder)");
    grammar.AddOption("--include-answers", includeAnswers, "",
                      "Add the answers of the sensors, redacted, too");
    grammar.AddOption("--no-redact", noRedact, "", "Replace nothing; asks before");
    grammar.AddOption("--yes", yes, "",
                      "Do not ask: with --no-redact, and when the redactor\n"
                      "does not know all names and numbers of this machine");
    grammar.AddOption("--rules{}", rules, "=FILE",
                      "More values to replace: lines of a name and a regular\n"
                      "expression");
    grammar.AddSocketOption(socket);
    grammar.AddTimeoutOption(timeout,
                             "How long to wait for each answer (default: 30), each\n"
                             "command and check (10), and each redaction (120)");
    grammar.ListCommonOptions();
  }

  Grammar grammar{"ktclientctl report"};
  std::string output;
  std::string includeAnswers = "false";
  std::string noRedact = "false";
  std::string yes = "false";
  std::string rules;
  std::string socket;
  std::string timeout;
};

std::string GetHelp() { return Options().grammar.GetHelp(); }

struct CommandLine {
  ReportOptions report;
  bool yes = false;
};

ReportLimits GetLimits(Options const& options) {
  if (!options.grammar.IsGiven("--timeout")) return {};
  std::chrono::seconds const limit = ParseTimeout(options.timeout);
  return {.answer = limit, .command = limit, .redaction = limit};
}

CommandLine ReadWords(int argc, char const* const* argv) {
  Options options;
  options.grammar.AddCommand("report", "Write the archive");
  options.grammar.Parse({argv + std::min(argc, 1), argv + argc});
  for (auto const& [name, value] :
       {std::pair("--output", &options.output), {"--rules", &options.rules}})
    if (options.grammar.IsGiven(name) && value->empty())
      throw Base::Exception(std::string(name) + " needs the name of a file");
  return {.report = {.address = GetAddress(options.socket),
                     .limits = GetLimits(options),
                     .output = options.output,
                     .includeAnswers = IsOn("--include-answers", options.includeAnswers),
                     .isRedacted = !IsOn("--no-redact", options.noRedact),
                     .rulesFile = options.rules,
                     .confirm = {}},
          .yes = IsOn("--yes", options.yes)};
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

// Whether the user sees the question, and can answer it.
bool CanAsk() { return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1; }

bool Agrees() {
  std::cerr << "Write it? [y/N] " << std::flush;
  std::string const answer = Base::LowerCased(Base::TrimWhiteSpace(ReadLine()));
  return answer == "y" || answer == "yes";
}

// Whether to write a report although the redactor does not know all secrets.
bool ConfirmUnknown(std::vector<std::string> const& unknown, bool yes) {
  if (!yes && !CanAsk()) {
    std::string list;
    for (std::string const& what : unknown) list += (list.empty() ? "" : "; ") + what;
    throw Support::Error("secrets-unknown",
                         "Nothing was written, because the redactor does not know these, which may "
                         "stand in the archive in clear: " +
                             list,
                         "To write it nevertheless, add --yes");
  }
  std::cerr << "The redactor does not know:\n";
  for (std::string const& what : unknown) std::cerr << "  - " + EscapeToOneLine(what) + "\n";
  std::cerr << "These may stand in the archive in clear.\n";
  return yes || Agrees();
}

std::string GetText(Support::Error const& error) {
  std::string text = error.what();
  if (error.GetFields().contains("path")) {
    auto const path = error.GetFields()["path"].get<std::string>();
    if (text.ends_with('.')) text.pop_back();
    text += " (" + (path == "." ? "the current folder" : path) + ")";
  }
  // The message has the usual reasons already.
  if (error.GetCode().ends_with("-not-written") && error.GetCause() != nullptr)
    text += std::string(": ") + error.GetCause()->what();
  if (!text.ends_with('.') && !error.GetAdvice().empty()) text += ".";
  return error.GetAdvice().empty() ? text : text + " " + error.GetAdvice();
}

int Run(ReportOptions const& options) {
  try {
    WrittenReport const report = WriteReport(options);
    if (report.path.empty()) return ExitWithError(ExitStatus::OtherStatus, "Nothing was written");
    for (std::string const& member : report.missing) {
      std::cerr << "ktclientctl: The archive has no " + member +
                       ", because its redaction took too long\n";
    }
    int const status = Print(EscapeControls(report.path) + "\n");
    return status == 0 ? 0 : ExitWithError(ExitStatus::NoResponse, "The archive is " + report.path);
  } catch (Support::Error const& err) {
    bool const isRule = err.GetCode().starts_with("redaction-rule");
    return ExitWithError(isRule ? ExitStatus::WrongUsage : ExitStatus::NoResponse, GetText(err));
  } catch (std::exception const& err) {
    return ExitWithError(ExitStatus::NoResponse, err.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (auto const status = StartProgram(argc, argv, "ktclientctl-report", GetHelp)) return *status;
  CommandLine commandLine;
  try {
    commandLine = ReadWords(argc, argv);
  } catch (Base::Exception const& err) {
    return ExitWithError(ExitStatus::WrongUsage,
                         std::string(err.what()) + " (see ktclientctl report --help)");
  }
  commandLine.report.confirm = [yes = commandLine.yes](std::vector<std::string> const& unknown) {
    return ConfirmUnknown(unknown, yes);
  };
  EndCommandsOnSignals();
  if (!commandLine.report.isRedacted) {
    if (!commandLine.yes && !CanAsk())
      return ExitWithError(ExitStatus::WrongUsage,
                           "--no-redact asks on a terminal; without one, add --yes");
    Warn();
    if (!commandLine.yes && !Agrees())
      return ExitWithError(ExitStatus::OtherStatus, "Nothing was written");
  }
  return FinishProgram(Run(commandLine.report));
}
