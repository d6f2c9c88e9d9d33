#include "client/report/collect.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/exception.h"
#include "base/shared.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "client/deadline.h"
#include "client/doctor/checks.h"
#include "client/doctor/doctor.h"
#include "client/exchange.h"
#include "client/text.h"
#include "support/file_manager.h"

// Each step reads a few files and runs a few commands. What one of them lacks is a gap, and the
// step goes on: a report with half of its members is still worth sending.
//
// All is bounded: files and the output of commands in bytes, commands and answers in time. A text
// of which only the end is wanted begins at a whole record. The redactor could not recognise a
// value whose beginning is missing, nor a value whose name is missing.

namespace {

constexpr char const* service = "ktclientd.service";
constexpr char const* socketUnit = "ktclientd.socket";

constexpr std::size_t maxSmallFile = std::size_t{1} << 20U;
constexpr std::size_t maxTrace = std::size_t{16} << 20U;
// Less than a command may print, so that journalctl is not stopped for it.
constexpr std::size_t maxJournal = 1'000'000;
constexpr int maxJournalLines = 5000;

constexpr std::size_t maxTraceNames = 100'000;  // that a folder is searched for

void AddSection(std::string& text, std::string const& title, std::string_view body) {
  text += "== " + title + "\n" + std::string(body);
  if (!body.empty() && !body.ends_with('\n')) text += '\n';
  text += '\n';
}

Support::Error MakeGap(std::string code, std::string const& message) {
  return {std::move(code), message, GetPermissionAdvice()};
}

// Adds the command's output as a section. Also the output of a command that fails: it says why.
void AddCommand(ReportFindings& findings, std::string& text, std::chrono::seconds limit,
                std::vector<std::string> const& words) {
  std::string title;
  for (std::string const& word : words) title += (title.empty() ? "" : " ") + word;
  try {
    CommandResult const result =
        RunCommand({.words = words, .limit = limit, .path = GetCommandPath(), .withErrors = true});
    AddSection(text, title, result.output);
    if (result.status == 127) {
      findings.gaps.emplace_back("command-not-found", "There is no command " + words[0]);
    } else if (result.status != 0) {
      findings.gaps.push_back(MakeGap("command-failed", "The command \"" + title +
                                                            "\" failed with exit status " +
                                                            std::to_string(result.status)));
    }
  } catch (Support::Error const& err) {
    findings.gaps.emplace_back(err.GetCode(), "\"" + title + "\": " + err.what());
  }
}

std::optional<std::string> ReadFileInto(ReportFindings& findings, std::string const& path) {
  try {
    return Support::FileManager::ReadFile(path, maxSmallFile);
  } catch (Support::Error const& err) {
    bool const isPermission = err.GetCode() == "file-permission-denied";
    findings.gaps.emplace_back(err.GetCode(), path + ": " + err.what(),
                               isPermission ? GetPermissionAdvice() : "");
    return {};
  }
}

ReportFindings CollectDoctor(ReportContext const& context) {
  DoctorOptions const options{.address = context.address, .timeout = context.limits.command};
  std::vector<CheckResult> const results = RunChecks(options);
  auto const json = ToJson(options, results);
  ReportFindings findings;
  findings.members = {
      {"doctor.json", json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n"},
      {"doctor.txt", ToText(results, false)}};
  return findings;
}

ReportFindings CollectVersions(ReportContext const& context) {
  std::chrono::seconds const limit = context.limits.command;
  ReportFindings findings;
  std::string text;
  if (auto const release = ReadFileInto(findings, "/etc/os-release"))
    AddSection(text, "/etc/os-release", *release);
  // Not `uname -a`, which prints the name of the machine.
  AddCommand(findings, text, limit, {"uname", "-srvm"});
  for (char const* program : {"systemctl", "dmidecode", "ktclientd", "ktclientctl"})
    AddCommand(findings, text, limit, {program, "--version"});
  AddCommand(findings, text, limit, {"openssl", "version"});
  findings.members = {{"versions.txt", text}};
  return findings;
}

ReportFindings CollectUnits(ReportContext const& context) {
  std::chrono::seconds const limit = context.limits.command;
  ReportFindings findings;
  std::string text;
  for (char const* unit : {service, socketUnit}) {
    std::string files;
    AddCommand(findings, files, limit, {"systemctl", "--no-pager", "cat", unit});
    text += JoinContinuedLines(files);  // a secret ends where its value ends, not its line
    AddCommand(findings, text, limit, {"systemctl", "--no-pager", "show", unit});
  }
  findings.members = {{"units.txt", text}};
  return findings;
}

// "NAME=value" with the value in quotes, so that the redactor sees where a secret of several words
// ends. A line that is no assignment stays as it is.
std::string QuoteValue(std::string_view assignment) {
  std::size_t const separator = assignment.find('=');
  if (separator == std::string_view::npos) return std::string(assignment) + "\n";
  std::string_view value = Base::TrimWhiteSpace(assignment.substr(separator + 1));
  bool const isQuoted = value.size() > 1 && value.front() == value.back() &&
                        (value.front() == '"' || value.front() == '\'');
  if (isQuoted) value = value.substr(1, value.size() - 2);
  std::string text(assignment.substr(0, separator));
  text += "=\"";
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '"' && (i == 0 || value[i - 1] != '\\')) text += '\\';
    text += value[i] == '\n' ? ' ' : value[i];
  }
  return text + "\"\n";
}

std::string GetSettingsInForce(Findings const& daemon) {
  std::string text;
  for (auto const& [name, value] : *daemon.settings) {
    std::string variable = "KESTREL_" + name;
    std::ranges::transform(variable, variable.begin(), [](char c) {
      return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    text += QuoteValue(variable.append("=").append(value));
  }
  return text + QuoteValue("PATH=" + daemon.path);
}

ReportFindings CollectSettings(ReportContext const& context) {
  Findings const& daemon = *context.daemon;
  ReportFindings findings;
  std::string text;
  if (daemon.settings) {
    AddSection(text, "in force", GetSettingsInForce(daemon));
  } else {
    findings.gaps.push_back(MakeGap("settings-unknown", "The settings of the daemon are unknown"));
  }
  std::string properties;
  for (char const* name : {"ExecStart", "EnvironmentFiles", "UnsetEnvironment", "User", "MainPID"})
    properties += std::string(name) + "=" + daemon.GetServiceProperty(name) + "\n";
  for (std::string const& variable : SplitWords(daemon.GetServiceProperty("Environment")))
    properties += QuoteValue(variable);
  if (!daemon.units.empty()) AddSection(text, "the service", properties);
  for (std::string const& path : GetEnvironmentFiles(daemon)) {
    if (access(path.c_str(), F_OK) != 0) continue;
    auto const content = ReadFileInto(findings, path);
    if (!content) continue;
    std::string quoted;
    for (std::string const& line : SplitAssignments(*content)) quoted += QuoteValue(line);
    AddSection(text, path, quoted);
  }
  findings.members = {{"settings.txt", text}};
  return findings;
}

ReportFindings CollectJournal(ReportContext const& context) {
  std::chrono::seconds const limit = context.limits.command;
  ReportFindings findings;
  std::string const script =
      "{ journalctl --no-pager --no-hostname --utc --output=short-iso --lines=" +
      std::to_string(maxJournalLines) + " --unit=" + service + " --unit=" + socketUnit +
      "; echo \"exit status $?\"; } | tail -c " + std::to_string(maxJournal);
  std::string text;
  try {
    text = RunCommand({.words = {"sh", "-c", script},
                       .limit = limit,
                       .path = GetCommandPath(),
                       .withErrors = true})
               .output;
  } catch (Support::Error const& err) {
    findings.gaps.emplace_back(err.GetCode(),
                               "The journal cannot be read: journalctl did not end in " +
                                   std::to_string(limit.count()) + " s");
    return findings;
  }
  if (text.size() == maxJournal) CutToRecord(text, "0000-00-00T");
  CutOpenBlock(text);
  constexpr std::string_view success = "exit status 0\n";
  if (!text.ends_with(success)) {
    findings.gaps.push_back(
        MakeGap("journal-not-read", "The journal cannot be read: journalctl failed"));
  } else if (text.find("not seeing messages") != std::string::npos) {
    findings.gaps.push_back(
        MakeGap("journal-not-complete", "The journal shows this user no messages of the service"));
  }
  findings.members = {{"journal.txt", text}};
  return findings;
}

// A file of the trace, not opened for reading yet. Another user may own the folder of the trace, or
// write to it, and must not choose which file root reads: a link in the place of the file is not
// followed, and the file must belong to the daemon's user, to root or to this user.
struct TraceFile {
  Base::UniqueFd fd;
  struct stat status {};
  int error = 0;  // an errno

  explicit TraceFile(std::string const& path)
      : fd(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)) {
    if (!fd || fstat(fd.Get(), &status) == -1) error = errno;
  }

  // One name only: a hard link would give the file of somebody else the name of the trace.
  bool IsRegular() const { return error == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1; }

  bool IsOfDaemon(Findings const& daemon) const {
    return status.st_uid == 0 || status.st_uid == geteuid() || status.st_uid == daemon.daemonUser;
  }
};

std::string ReadTrace(Findings const& daemon, std::string const& path) {
  TraceFile const file(path);
  auto const fail = [](char const* code, std::string const& reason) {
    return Support::Error(code, "The file cannot be read: " + reason + ".");
  };
  if (file.error == ENOENT || file.error == ENOTDIR)
    throw fail("file-not-found", "it does not exist");
  if (file.error == EACCES || file.error == EPERM)
    throw fail("file-permission-denied", "permission is denied");
  if (file.error != 0) throw fail("file-not-read", Base::ErrnoText(file.error));
  if (!file.IsRegular())
    throw fail("file-not-regular", "it is not a regular file, or it has another name, too");
  if (!file.IsOfDaemon(daemon)) {
    throw fail("file-of-other-user",
               "it belongs to the user " + GetUserName(file.status.st_uid) + ", not to the daemon");
  }
  // One byte more, to see whether there is more.
  std::string text = Support::FileManager::ReadFileEnd(
      "/proc/self/fd/" + std::to_string(file.fd.Get()), maxTrace + 1);
  if (text.size() > maxTrace) CutToRecord(text, "00:00:00.000Z ");
  CutOpenBlock(text);
  return text;
}

// The newest file of a daemon that makes one at each start: the name begins with the time.
std::string FindNewestTrace(Findings const& daemon, std::string const& folder) {
  std::string newest;
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (std::size_t i = 0; !error && i < maxTraceNames; ++i, entry.increment(error)) {
    if (entry == std::filesystem::directory_iterator()) break;
    std::string const name = entry->path().filename();
    if (!name.ends_with("_ktclientd.log") || name <= newest) continue;
    TraceFile const file(entry->path());
    if (file.IsRegular() && file.IsOfDaemon(daemon)) newest = name;
  }
  return newest;
}

ReportFindings CollectTrace(ReportContext const& context) {
  Findings const& daemon = *context.daemon;
  ReportFindings findings;
  TracePlace const place = GetTracePlace(daemon);
  std::string path = place.path;
  if (place.isNewAtEachStart) {
    std::string const name = FindNewestTrace(daemon, daemon.root + place.folder);
    path = place.folder + "/" + (name.empty() ? "TIME_ktclientd.log" : name);
  }
  constexpr std::array<std::string_view, 3> suffixes = {"", ".1", ".crash"};
  for (std::string_view const suffix : suffixes) {
    std::string const file = path + std::string(suffix);
    try {
      findings.members.push_back(
          {"trace/ktclientd.log" + std::string(suffix), ReadTrace(daemon, daemon.root + file)});
    } catch (Support::Error const& err) {
      bool const isAbsent = err.GetCode() == "file-not-found";
      if (isAbsent && !suffix.empty()) continue;
      findings.gaps.emplace_back(
          err.GetCode(), "The trace file " + file + ": " + err.what(),
          err.GetCode().ends_with("permission-denied") ? GetPermissionAdvice() : "");
      if (suffix.empty() && err.GetCode().ends_with("permission-denied")) break;
    }
  }
  return findings;
}

ReportFindings CollectAnswer(ReportContext const& context, std::string const& sensor) {
  ReportFindings findings;
  findings.members = {{"answers/" + sensor + ".json", AskSensor(context, sensor) + "\n"}};
  return findings;
}

}  // namespace

std::vector<ReportStep> GetMemberSteps(ReportContext const& context) {
  std::vector<ReportStep> steps;
  auto const add = [&](char const* what, int count,
                       ReportFindings (*collect)(ReportContext const&)) {
    // Each check and command has its own limit; a second more for what is between them.
    steps.push_back({what, count * (context.limits.command + std::chrono::seconds(2)),
                     [context, collect] { return collect(context); }});
  };
  add("the checks of ktclientctl doctor", 15, CollectDoctor);
  add("the versions", 6, CollectVersions);
  add("the units", 4, CollectUnits);
  add("the settings", 1, CollectSettings);
  add("the journal", 1, CollectJournal);
  add("the trace", 3, CollectTrace);
  if (!context.includeAnswers) return steps;
  for (char const* sensor : {"hardware", "igel"})
    steps.push_back({std::string("the answer of the sensor ") + sensor,
                     context.limits.answer + std::chrono::seconds(2),
                     [context, sensor] { return CollectAnswer(context, sensor); }});
  return steps;
}

std::string AskSensor(ReportContext const& context, std::string const& name) {
  auto const exchange = Base::MakeShared<Exchange>(
      context.address, nlohmann::json{{"sensor", {{name, nullptr}}}}.dump());
  std::optional<Exchange::Outcome> outcome = exchange->Run(context.limits.answer);
  if (!outcome) {
    throw Support::Error("no-answer", "The daemon did not answer within " +
                                          std::to_string(context.limits.answer.count()) + " s");
  }
  if (!outcome->isResponse) throw Support::Error("no-answer", outcome->text);
  return std::move(outcome->text);
}

std::string GetPermissionAdvice() {
  return geteuid() == 0 ? "" : "Run it with sudo: sudo ktclientctl report";
}

std::string GetCommandPath() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
  char const* const path = std::getenv("PATH");
  std::string folders = path != nullptr ? path : "/usr/bin:/bin";
  folders += ":/usr/sbin:/sbin";
  // The programs of an installation with a prefix of its own.
  std::error_code error;
  auto const folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  for (char const* place : {"", "../../bin", "../../sbin"})
    if (folder.is_absolute()) folders += ":" + (folder / place).string();
  return folders;
}
