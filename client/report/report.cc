#include "client/report/report.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "client/deadline.h"
#include "client/doctor/checks.h"
#include "client/output.h"
#include "client/report/archive.h"
#include "client/report/collect.h"
#include "client/report/secrets.h"
#include "support/error.h"
#include "support/file_manager.h"
#include "support/redacting_stream.h"
#include "support/redactor.h"
#include "trace/time_text.h"

// A report is made in these stages:
//
//   1. The daemon is looked for, as `ktclientctl doctor` does it.
//   2. The redactor learns the names and numbers of this machine and the user's rules. When it
//      could not learn all of them, the user must agree.
//   3. The steps collect the members. None of them is redacted yet, and nothing is on the disk.
//   4. The redactor takes each member as a whole. One redactor takes all of them, so a value has
//      the same placeholder in each file.
//   5. README gets the counts, so it is the last to be made, though it is the first in the archive.
//      The archive is built in memory and written as one file.
//
// Each step runs with a deadline. A step of 1 or 3 that fails or is late leaves a gap. README lists
// the gaps, redacted: a path or an error text can hold a name, too.
//
// The time of the redaction is linear in the size of the members, but the rules of a user decide
// how fast it is. A member whose redaction is late is left out: nothing that the redactor has not
// seen gets into the archive. When the redactor hangs in a single piece of a text, nothing is
// written, because its thread still uses it.

namespace {

constexpr char const* folder = "ktclientd-report/";
constexpr std::size_t maxSecrets = 20'000;
constexpr std::size_t redactionPiece = std::size_t{64} << 10U;
// What one piece may take after the end of the time.
constexpr std::chrono::seconds redactionMargin{20};
constexpr std::chrono::seconds writeLimit{120};

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

void Append(ReportFindings& all, ReportFindings&& more) {
  std::ranges::move(more.members, std::back_inserter(all.members));
  std::ranges::move(more.secrets, std::back_inserter(all.secrets));
  std::ranges::move(more.unknown, std::back_inserter(all.unknown));
  std::ranges::move(more.gaps, std::back_inserter(all.gaps));
}

std::string GetLateness(std::chrono::seconds limit) {
  return "it took longer than " + std::to_string(limit.count()) + " s";
}

// Calls `onFailure` for each step that fails or is late, with the reason.
void RunSteps(std::vector<ReportStep> const& steps, ReportFindings& findings,
              std::function<void(ReportStep const&, Support::Error const&)> const& onFailure) {
  ProgressLine progress;
  for (ReportStep const& step : steps) {
    auto const show = [&] { progress.Show("Looking at " + step.what); };
    show();
    try {
      std::optional<ReportFindings> found =
          RunWithDeadline<ReportFindings>(step.run, step.limit, show);
      if (!found) throw Support::Error("too-late", GetLateness(step.limit));
      Append(findings, std::move(*found));
    } catch (Support::Error const& err) {
      onFailure(step, err);
    }
  }
}

void FindSecrets(ReportContext const& context, ReportFindings& findings) {
  RunSteps(GetSecretSteps(context), findings,
           [&](ReportStep const& step, Support::Error const& err) {
             findings.unknown.push_back(step.what + ": " + err.what());
           });
}

void FindMembers(ReportContext const& context, ReportFindings& findings) {
  RunSteps(GetMemberSteps(context), findings,
           [&](ReportStep const& step, Support::Error const& err) {
             findings.gaps.emplace_back(err.GetCode(), "Left out: " + step.what + ": " + err.what(),
                                        err.GetAdvice());
           });
}

// Returns what can be known of the daemon.
std::shared_ptr<Findings const> FindDaemonOf(ReportContext const& context,
                                             ReportFindings& findings) {
  auto const daemon = std::make_shared<Findings>();
  std::chrono::seconds const limit = context.limits.command;
  auto const run = [address = context.address, limit, daemon] {
    ReportFindings found;
    *daemon = FindService({.address = address, .timeout = limit}, found.gaps);
    return found;
  };
  bool hasFound = true;
  RunSteps({{"the daemon", 4 * (limit + std::chrono::seconds(1)), run}}, findings,
           [&](ReportStep const& step, Support::Error const& err) {
             hasFound = false;
             findings.gaps.emplace_back(err.GetCode(),
                                        "Left out: " + step.what + ": " + err.what());
           });
  // A late step still writes to `daemon`.
  return hasFound ? daemon : std::make_shared<Findings>();
}

// The redactor ignores the shortest values, because they stand everywhere in other words.
void AddSecrets(Support::Redactor& redactor, std::chrono::seconds limit, ReportFindings& findings) {
  auto const deadline = std::chrono::steady_clock::now() + limit;
  std::set<std::pair<std::string, std::string>> known;
  std::set<std::string> ignored;
  for (ReportSecret const& secret : findings.secrets) {
    if (secret.value.size() < 3) ignored.insert(secret.rule);
    if (!known.emplace(secret.rule, secret.value).second) continue;
    if (known.size() > maxSecrets || std::chrono::steady_clock::now() > deadline) {
      findings.unknown.push_back(
          "all but " + std::to_string(known.size() - 1) + " of " +
          std::to_string(findings.secrets.size()) +
          " names, most of them of users: more would make the redaction too slow");
      break;
    }
    redactor.AddSecret(secret.rule, secret.value);
  }
  for (std::string const& rule : ignored) {
    findings.gaps.emplace_back("secret-too-short",
                               "A value of the rule " + rule +
                                   " is not replaced, because it has fewer than three characters");
  }
}

// Returns the redacted text; nothing when the time is over. Throws Support::Error when the redactor
// does not even end a piece: no other call of it may follow.
std::optional<std::string> Redact(std::shared_ptr<Support::Redactor> const& redactor,
                                  std::string const& what, std::string text,
                                  std::chrono::seconds limit) {
  using Result = std::optional<std::string>;
  ProgressLine progress;
  auto const run = [redactor, text = std::move(text),
                    deadline = std::chrono::steady_clock::now() + limit]() -> Result {
    std::string redacted;
    Support::RedactingStream stream(*redactor,
                                    [&](std::string_view piece) { redacted.append(piece); });
    for (std::size_t begin = 0; begin < text.size(); begin += redactionPiece) {
      if (std::chrono::steady_clock::now() > deadline) return {};
      stream.Write(std::string_view(text).substr(begin, redactionPiece));
    }
    stream.Finish();
    return redacted;
  };
  std::optional<Result> result = RunWithDeadline<Result>(
      run, limit + redactionMargin, [&] { progress.Show("Redacting " + what); });
  if (!result) {
    throw Support::Error("redaction-late",
                         "Nothing was written, because the redaction of " + what + " does not end",
                         "Rules of --rules may take too long, or the text has an unusual form");
  }
  return std::move(*result);
}

// Returns the members that are left out.
std::vector<std::string> RedactMembers(std::shared_ptr<Support::Redactor> const& redactor,
                                       std::chrono::seconds limit, ReportFindings& findings) {
  std::vector<std::string> missing;
  std::vector<ReportMember> members;
  for (ReportMember& member : findings.members) {
    auto text = Redact(redactor, member.path, std::move(member.text), limit);
    if (text) {
      if (member.path.ends_with(".json") && !nlohmann::json::accept(*text)) {
        findings.gaps.emplace_back("not-json", "A rule has replaced part of the syntax of " +
                                                   member.path + ", which is no longer JSON");
      }
      members.push_back({member.path, std::move(*text)});
    } else {
      missing.push_back(member.path);
      findings.gaps.emplace_back("redaction-late", "Left out: " + member.path +
                                                       ": its redaction took longer than " +
                                                       std::to_string(limit.count()) + " s");
    }
  }
  findings.members = std::move(members);
  return missing;
}

std::string GetMeaning(std::string_view path) {
  for (auto const& [beginning, meaning] : meanings)
    if (path.starts_with(beginning)) return std::string(meaning);
  return {};
}

// What the archive lacks, before the redaction.
std::string DescribeGaps(ReportFindings const& findings) {
  std::string text;
  if (!findings.unknown.empty()) {
    text += "\nUNKNOWN TO THE REDACTOR, so these may stand in this archive in clear:\n\n";
    for (std::string const& unknown : findings.unknown) text += "  - " + unknown + "\n";
  }
  text += "\nWhat is missing or incomplete, and why:\n\n";
  for (Support::Error const& gap : findings.gaps) {
    text += std::string("  - ") + gap.what() + "\n";
    if (!gap.GetAdvice().empty()) text += "    " + gap.GetAdvice() + "\n";
  }
  if (findings.gaps.empty()) text += "  nothing\n";
  return text;
}

std::string FillColumn(std::string text) {
  text.resize(std::max<std::size_t>(text.size() + 1, 28), ' ');
  return "  " + text;
}

// `redactor` is null when nothing is redacted.
std::string MakeReadme(ReportFindings const& findings, std::chrono::system_clock::time_point time,
                       std::string const& gaps, Support::Redactor const* redactor) {
  std::string text(introduction);
  text += "\nMade at ";
  Trace::AppendTimePoint(text, time);
  text += geteuid() == 0 ? " by root" : " by an ordinary user";
  text += ", with version " KTCLIENTD_VERSION ".\n\nWhat is inside:\n\n";
  for (ReportMember const& member : findings.members)
    text += FillColumn(member.path) + GetMeaning(member.path) + "\n";
  text += gaps;
  if (redactor == nullptr)
    return text +
           "\nNOTHING IS REDACTED: names, addresses, numbers and secrets are as they were.\n";
  text +=
      "\nPlaceholders such as <host-1> replace values. The same value has the same placeholder in\n"
      "all files. How often each rule replaced something:\n\n";
  for (auto const& [rule, count] : redactor->GetCounts())
    text += FillColumn(rule) + std::to_string(count) + "\n";
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

// The user who has become root by sudo(8), to whom the archive is of use.
std::optional<Support::FileManager::Owner> GetSudoUser() {
  // NOLINTBEGIN(concurrency-mt-unsafe): nobody changes the environment
  char const* const user = std::getenv("SUDO_UID");
  char const* const group = std::getenv("SUDO_GID");
  // NOLINTEND(concurrency-mt-unsafe)
  if (geteuid() != 0 || user == nullptr || group == nullptr) return {};
  auto const uid = Base::ParseNumber<uid_t>(user);
  auto const gid = Base::ParseNumber<gid_t>(group);
  constexpr auto none = static_cast<uid_t>(-1);  // leaves the owner
  if (!uid || !gid || uid.Get() == none || gid.Get() == none) return {};
  return Support::FileManager::Owner{.uid = uid.Get(), .gid = gid.Get()};
}

void WriteArchive(std::string const& path, std::string const& bytes) {
  SignalDelay const delay;
  auto const write = [&](std::optional<Support::FileManager::Owner> owner) {
    Support::FileManager(owner).WriteFile(path, bytes, 0600,
                                          Support::FileManager::IfExists::Refuse);
  };
  auto const owner = GetSudoUser();
  if (!owner) return write({});
  try {
    write(owner);
  } catch (Support::Error const& err) {
    // Not every file system, and not every container, can give a file to another user.
    if (err.GetCode() == "file-exists") throw;
    write({});
  }
}

// With a deadline, because the disk may not respond.
void WriteInTime(std::string const& path, std::string bytes) {
  bool const hasEnded =
      RunStep([path, bytes = std::move(bytes)] { WriteArchive(path, bytes); }, writeLimit, {});
  if (!hasEnded)
    throw Support::Error("file-not-written",
                         "The archive " + path + " cannot be written: " + GetLateness(writeLimit));
}

}  // namespace

WrittenReport WriteReport(ReportOptions const& options) {
  auto const time = std::chrono::system_clock::now();
  WrittenReport report;
  std::string const path = options.output.empty() ? GetDefaultPath(time) : options.output;
  // `WriteFile` checks it, too, but only after all the work.
  if (access(path.c_str(), F_OK) == 0)
    throw Support::Error("file-exists", "The file exists already: " + path);
  std::shared_ptr<Support::Redactor> redactor;
  if (options.isRedacted) redactor = std::make_shared<Support::Redactor>();
  if (redactor && !options.rulesFile.empty()) redactor->AddRulesFromFile(options.rulesFile);

  ReportFindings findings;
  ReportContext context{.address = options.address,
                        .limits = options.limits,
                        .includeAnswers = options.includeAnswers};
  context.daemon = FindDaemonOf(context, findings);
  if (redactor) {
    FindSecrets(context, findings);
    AddSecrets(*redactor, options.limits.redaction, findings);
    if (!findings.unknown.empty() && !options.confirm(findings.unknown)) return report;
  } else {
    findings.unknown.clear();
  }
  FindMembers(context, findings);
  if (redactor) report.missing = RedactMembers(redactor, options.limits.redaction, findings);

  std::optional<std::string> gaps = DescribeGaps(findings);
  if (redactor) gaps = Redact(redactor, "README", std::move(*gaps), options.limits.redaction);
  if (!gaps)
    throw Support::Error("redaction-late", "Nothing was written: the redaction of README is late");
  Archive archive(time);
  archive.Add(std::string(folder) + "README", MakeReadme(findings, time, *gaps, redactor.get()));
  for (ReportMember const& member : findings.members)
    archive.Add(folder + member.path, member.text);
  WriteInTime(path, archive.Finish());
  report.path = path;
  return report;
}
