#include "client/report/collect.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/shared.h"
#include "base/text.h"
#include "client/deadline.h"
#include "client/doctor/doctor.h"
#include "client/exchange.h"
#include "client/report/text.h"
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
constexpr char const* defaultTraceFolder = "/var/log/ktclientd/";
constexpr char const* defaultSettingsFile = "/etc/default/ktclientd";

constexpr std::size_t maxSmallFile = std::size_t{1} << 20U;
constexpr std::size_t maxTrace = std::size_t{16} << 20U;
// Less than a command may print, so that journalctl is not stopped for it.
constexpr std::size_t maxJournal = 1'000'000;
constexpr int maxJournalLines = 5000;

constexpr std::chrono::seconds checkLimit{10};
constexpr std::chrono::seconds commandLimit{10};
constexpr std::chrono::seconds answerLimit{30};

void AddSection(std::string& text, std::string const& title, std::string_view body) {
  text += "== " + title + "\n" + std::string(body);
  if (!body.empty() && !body.ends_with('\n')) text += '\n';
  text += '\n';
}

Support::Error MakeGap(std::string code, std::string const& message) {
  return {std::move(code), message, GetPermissionAdvice()};
}

// Adds the command's output as a section. Also the output of a command that fails: it says why.
void AddCommand(ReportFindings& findings, std::string& text,
                std::vector<std::string> const& words) {
  std::string title;
  for (std::string const& word : words) title += (title.empty() ? "" : " ") + word;
  try {
    CommandResult const result = RunCommand(
        {.words = words, .limit = commandLimit, .path = GetCommandPath(), .withErrors = true});
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

ReportFindings CollectDoctor(Net::Address const& address) {
  DoctorOptions const options{.address = address, .timeout = checkLimit};
  std::vector<CheckResult> const results = RunChecks(options);
  auto const json = ToJson(options, results);
  ReportFindings findings;
  findings.members = {
      {"doctor.json", json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n"},
      {"doctor.txt", ToText(results, false)}};
  return findings;
}

ReportFindings CollectVersions() {
  ReportFindings findings;
  std::string text;
  if (auto const release = ReadFileInto(findings, "/etc/os-release"))
    AddSection(text, "/etc/os-release", *release);
  // Not `uname -a`, which prints the name of the machine.
  AddCommand(findings, text, {"uname", "-srvm"});
  for (char const* program : {"systemctl", "dmidecode", "ktclientd", "ktclientctl"})
    AddCommand(findings, text, {program, "--version"});
  AddCommand(findings, text, {"openssl", "version"});
  findings.members = {{"versions.txt", text}};
  return findings;
}

ReportFindings CollectUnits() {
  ReportFindings findings;
  std::string text;
  for (char const* unit : {service, socketUnit}) {
    AddCommand(findings, text, {"systemctl", "--no-pager", "cat", unit});
    AddCommand(findings, text, {"systemctl", "--no-pager", "show", unit});
  }
  findings.members = {{"units.txt", text}};
  return findings;
}

// The settings of the service, and where they come from.
struct Settings {
  std::string sources;
  std::map<std::string, std::string> inForce;  // by variable, KESTREL_... only

  void Set(std::string_view assignment) {
    std::size_t const separator = assignment.find('=');
    if (!assignment.starts_with("KESTREL_") || separator == std::string_view::npos) return;
    inForce[std::string(assignment.substr(0, separator))] = assignment.substr(separator + 1);
  }

  std::string Get(std::string const& name) const {
    auto const setting = inForce.find(name);
    return setting == inForce.end() ? "" : setting->second;
  }
};

// The variables of the unit, overridden by its files, without what the unit removes.
Settings GetSettings(ReportFindings& findings) {
  Settings settings;
  std::string text;
  AddCommand(findings, text,
             {"systemctl", "--no-pager", "show",
              "--property=Environment,EnvironmentFiles,UnsetEnvironment,MainPID", service});
  std::vector<std::string> files;
  std::vector<std::string> removed;
  std::string pid;
  for (std::string const& line : Split(text)) {
    std::size_t const separator = std::min(line.find('='), line.size());
    std::string_view const name = std::string_view(line).substr(0, separator);
    std::string const value = line.substr(std::min(separator + 1, line.size()));
    if (name == "Environment") {
      for (std::string const& word : SplitWords(value)) settings.Set(word);
    } else if (name == "EnvironmentFiles") {
      files.push_back(value.substr(0, value.rfind(" (")));
    } else if (name == "UnsetEnvironment") {
      removed = SplitWords(value);
    } else if (name == "MainPID" && value != "0") {
      pid = value;
    }
  }
  settings.sources = text;
  if (files.empty()) files = {defaultSettingsFile};
  for (std::string const& file : files) {
    if (access(file.c_str(), F_OK) != 0) continue;
    auto const content = ReadFileInto(findings, file);
    if (!content) continue;
    AddSection(settings.sources, file, *content);
    for (std::string const& line : Split(*content)) {
      std::string assignment;
      for (std::string const& word : SplitWords(line))
        assignment += (assignment.empty() ? "" : " ") + word;
      settings.Set(assignment);
    }
  }
  for (std::string const& variable : removed) settings.inForce.erase(variable);
  if (!pid.empty()) {
    // What the running daemon has got, which can be older than the files.
    if (auto const environment = ReadFileInto(findings, "/proc/" + pid + "/environ")) {
      Settings running;
      for (std::string const& variable : Split(*environment, '\0')) running.Set(variable);
      settings.inForce = running.inForce;
    }
  }
  return settings;
}

ReportFindings CollectSettings() {
  ReportFindings findings;
  Settings const settings = GetSettings(findings);
  std::string inForce;
  for (auto const& [name, value] : settings.inForce)
    inForce.append(name).append("=").append(value).append("\n");
  std::string text;
  AddSection(text, "in force", inForce);
  findings.members = {{"settings.txt", text + settings.sources}};
  return findings;
}

ReportFindings CollectJournal() {
  ReportFindings findings;
  std::string const script =
      "{ journalctl --no-pager --no-hostname --utc --output=short-iso --lines=" +
      std::to_string(maxJournalLines) + " --unit=" + service + " --unit=" + socketUnit +
      "; echo \"exit status $?\"; } | tail -c " + std::to_string(maxJournal);
  std::string text;
  try {
    text = RunCommand({.words = {"sh", "-c", script},
                       .limit = commandLimit,
                       .path = GetCommandPath(),
                       .withErrors = true})
               .output;
  } catch (Support::Error const& err) {
    findings.gaps.emplace_back(err.GetCode(),
                               "The journal cannot be read: journalctl did not end in " +
                                   std::to_string(commandLimit.count()) + " s");
    return findings;
  }
  if (text.size() == maxJournal) CutToRecord(text, "0000-00-00T");
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

// The path of the trace file. With a prefix in its name, that of the newest one: the prefix begins
// with the time.
std::string GetTracePath(Settings const& settings) {
  for (char const* name : {"KESTREL_TRACE_FILE", "KESTREL_LOGGING_FILE"}) {
    if (std::string path = settings.Get(name); !path.empty()) return path;
  }
  std::string folder = settings.Get("KESTREL_TRACE_FOLDER");
  if (folder.empty()) folder = defaultTraceFolder;
  if (!folder.ends_with('/')) folder += '/';
  std::string name = "ktclientd.log";
  std::string const hasPrefix = Base::LowerCased(settings.Get("KESTREL_TRACE_FILE_PREFIX"));
  if (hasPrefix == "true" || hasPrefix == "1") {
    for (auto const& entry :
         Support::FileManager::Walk(folder, {.maxCount = 10000, .maxDepth = 1}).entries)
      if (entry.path.ends_with("_ktclientd.log")) name = entry.path;
  }
  return folder + name;
}

ReportFindings CollectTrace() {
  ReportFindings findings;
  ReportFindings ignored;  // the step of the settings has told the same
  std::string const path = GetTracePath(GetSettings(ignored));
  constexpr std::array<std::string_view, 3> suffixes = {"", ".1", ".crash"};
  for (std::string_view const suffix : suffixes) {
    std::string const file = path + std::string(suffix);
    try {
      // One byte more, to see whether there is more.
      std::string text = Support::FileManager::ReadFileEnd(file, maxTrace + 1);
      if (text.size() > maxTrace) CutToRecord(text, "00:00:00.000Z ");
      findings.members.push_back({"trace/ktclientd.log" + std::string(suffix), std::move(text)});
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

ReportFindings CollectAnswer(Net::Address const& address, std::string const& sensor) {
  ReportFindings findings;
  findings.members = {{"answers/" + sensor + ".json", AskSensor(address, sensor) + "\n"}};
  return findings;
}

}  // namespace

std::vector<ReportStep> GetMemberSteps(Net::Address const& address, bool includeAnswers) {
  using std::chrono::seconds;
  std::vector<ReportStep> steps = {
      {"the checks of ktclientctl doctor", seconds(120),
       [address] { return CollectDoctor(address); }},
      {"the versions", seconds(70), CollectVersions},
      {"the units", seconds(45), CollectUnits},
      {"the settings", seconds(20), CollectSettings},
      {"the journal", seconds(20), CollectJournal},
      {"the trace", seconds(30), CollectTrace},
  };
  if (includeAnswers) {
    for (char const* sensor : {"hardware", "igel"})
      steps.push_back({std::string("the answer of the sensor ") + sensor, answerLimit + checkLimit,
                       [address, sensor] { return CollectAnswer(address, sensor); }});
  }
  return steps;
}

std::string AskSensor(Net::Address const& address, std::string const& name) {
  auto const exchange =
      Base::MakeShared<Exchange>(address, nlohmann::json{{"sensor", {{name, nullptr}}}}.dump());
  std::future<Exchange::Outcome> future = exchange->Start();
  if (future.wait_for(answerLimit) != std::future_status::ready) {
    throw Support::Error("no-answer", "The daemon did not answer within " +
                                          std::to_string(answerLimit.count()) + " s");
  }
  Exchange::Outcome outcome = future.get();
  if (!outcome.isResponse) throw Support::Error("no-answer", outcome.text);
  return std::move(outcome.text);
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
