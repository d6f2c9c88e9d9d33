#include "client/report/report.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "client/deadline.h"
#include "client/report/archive.h"
#include "client/report/collect.h"
#include "client/report/secrets.h"
#include "support/error.h"
#include "support/file_manager.h"
#include "support/redactor.h"
#include "trace/time_text.h"

// A report is made in four stages:
//
//   1. The redactor learns the names and numbers of this machine and the user's rules.
//   2. The steps collect the members. None of them is redacted yet, and nothing is on the disk.
//   3. The redactor takes each member as a whole. One redactor takes all of them, so a value has
//      the same placeholder in each file.
//   4. README gets the counts, so it is the last to be made, though it is the first in the archive.
//      The archive is built in memory and written as one file.
//
// Each step of 1 and 2 runs with a deadline. A step that fails or is late leaves a gap. README
// lists the gaps, redacted: a path or an error text can hold a name, too. In stage 3 the time is
// linear in the size of the members, which is bounded.

namespace {

constexpr char const* folder = "ktclientd-report/";

constexpr std::string_view introduction =
    "This archive was made by `ktclientctl report`, for the people who help with ktclientd.\n"
    "Nobody but you has it until you send it. It is plain text: look into it before you do.\n";

// What each member holds; the key is the beginning of its path.
constexpr std::pair<std::string_view, std::string_view> meanings[] = {
    {"answers/", "the answer of a sensor"},
    {"doctor.json", "the checks of `ktclientctl doctor`, for programs"},
    {"doctor.txt", "the checks of `ktclientctl doctor`"},
    {"journal.txt", "the last lines of the journal of both units"},
    {"settings.txt", "the settings of the service, and where they come from"},
    {"trace/ktclientd.log.1", "the lines of the trace before these"},
    {"trace/ktclientd.log.crash", "the trace that ends with the last crash"},
    {"trace/", "the trace since the last start of the daemon"},
    {"units.txt", "both units as systemd sees them, with their drop-ins"},
    {"versions.txt", "the versions of the system and of the programs"},
};

// One line on standard error that shows what the program waits for.
class ProgressLine {
 public:
  ProgressLine() = default;
  ProgressLine(ProgressLine const&) = delete;
  ProgressLine& operator=(ProgressLine const&) = delete;
  ~ProgressLine() { Print(""); }

  void Show(std::string const& doing) { Print(doing + " ..."); }

 private:
  void Print(std::string const& text) const {
    if (_isTerminal) std::cerr << "\r\x1b[K" << text << std::flush;
  }

  bool const _isTerminal = isatty(STDERR_FILENO) == 1;
};

void Append(ReportFindings& all, ReportFindings&& more) {
  std::ranges::move(more.members, std::back_inserter(all.members));
  std::ranges::move(more.secrets, std::back_inserter(all.secrets));
  std::ranges::move(more.gaps, std::back_inserter(all.gaps));
}

void RunSteps(std::vector<ReportStep> const& steps, ReportFindings& findings) {
  ProgressLine progress;
  for (ReportStep const& step : steps) {
    progress.Show("Looking at " + step.what);
    try {
      std::optional<ReportFindings> found = RunWithDeadline<ReportFindings>(step.run, step.limit);
      if (found) {
        Append(findings, std::move(*found));
      } else {
        findings.gaps.emplace_back("too-late", "Left out because it took longer than " +
                                                   std::to_string(step.limit.count()) +
                                                   " s: " + step.what);
      }
    } catch (Support::Error const& err) {
      findings.gaps.emplace_back(err.GetCode(), "Left out: " + step.what + ": " + err.what(),
                                 err.GetAdvice());
    }
  }
}

// The redactor ignores the shortest values, because they stand everywhere in other words.
void AddSecrets(Support::Redactor& redactor, ReportFindings& findings) {
  std::set<std::string> ignored;
  for (ReportSecret const& secret : findings.secrets) {
    redactor.AddSecret(secret.rule, secret.value);
    if (secret.value.size() < 3) ignored.insert(secret.rule);
  }
  for (std::string const& rule : ignored) {
    findings.gaps.emplace_back("secret-too-short",
                               "A value of the rule " + rule +
                                   " is not replaced, because it has fewer than three characters");
  }
}

std::string GetMeaning(std::string_view path) {
  for (auto const& [beginning, meaning] : meanings)
    if (path.starts_with(beginning)) return std::string(meaning);
  return {};
}

// `redactor` is null when nothing is redacted.
std::string MakeReadme(ReportFindings const& findings, std::chrono::system_clock::time_point time,
                       Support::Redactor* redactor) {
  std::string text(introduction);
  text += "\nMade at ";
  Trace::AppendTimePoint(text, time);
  text += geteuid() == 0 ? " by root" : " by an ordinary user";
  text += ", with version " KTCLIENTD_VERSION ".\n\nWhat is inside:\n\n";
  for (ReportMember const& member : findings.members) {
    text += "  " + member.path +
            std::string(28 - std::min<std::size_t>(member.path.size(), 27), ' ') +
            GetMeaning(member.path) + "\n";
  }
  text += "\nWhat is missing or incomplete, and why:\n\n";
  for (Support::Error const& gap : findings.gaps) {
    std::string line = std::string("  - ") + gap.what() + "\n";
    if (!gap.GetAdvice().empty()) line += "    " + gap.GetAdvice() + "\n";
    text += redactor != nullptr ? redactor->Redact(line) : line;
  }
  if (findings.gaps.empty()) text += "  nothing\n";
  if (redactor == nullptr)
    return text +
           "\nNOTHING IS REDACTED: names, addresses, numbers and secrets are as they were.\n";
  text +=
      "\nPlaceholders such as <host-1> replace values. The same value has the same placeholder in\n"
      "all files. How often each rule replaced something:\n\n";
  for (auto const& [rule, count] : redactor->GetCounts())
    text += "  " + rule + std::string(28 - std::min<std::size_t>(rule.size(), 27), ' ') +
            std::to_string(count) + "\n";
  return text;
}

// In the current folder. The name of the machine loses what does not belong in a file's name.
std::string GetDefaultPath(std::chrono::system_clock::time_point time) {
  utsname system{};
  uname(&system);
  std::string host = system.nodename;
  std::ranges::replace_if(
      host, [](char c) { return !Base::IsLetterOrDigit(c) && c != '-' && c != '.'; }, '_');
  std::string path = "ktclientd-report-" + host + "-";
  Trace::AppendFileTime(path, time);
  return path + ".tar.gz";
}

}  // namespace

std::string WriteReport(ReportOptions const& options) {
  auto const time = std::chrono::system_clock::now();
  std::string const path = options.output.empty() ? GetDefaultPath(time) : options.output;
  // `WriteFile` checks it, too, but only after all the work.
  if (access(path.c_str(), F_OK) == 0)
    throw Support::Error("file-exists", "The file exists already: " + path);
  std::optional<Support::Redactor> redactor;
  ReportFindings findings;
  if (options.isRedacted) {
    redactor.emplace();
    if (!options.rulesFile.empty()) redactor->AddRulesFromFile(options.rulesFile);
    RunSteps(GetSecretSteps(options.address), findings);
  }
  RunSteps(GetMemberSteps(options.address, options.includeAnswers), findings);
  if (redactor) {
    AddSecrets(*redactor, findings);
    ProgressLine progress;
    for (ReportMember& member : findings.members) {
      progress.Show("Redacting " + member.path);
      member.text = redactor->Redact(member.text);
    }
  }
  Archive archive(time);
  archive.Add(std::string(folder) + "README",
              MakeReadme(findings, time, redactor ? &*redactor : nullptr));
  for (ReportMember const& member : findings.members)
    archive.Add(folder + member.path, member.text);
  Support::FileManager().WriteFile(path, archive.Finish(), 0600,
                                   Support::FileManager::IfExists::Refuse);
  return path;
}
