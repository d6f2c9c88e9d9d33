#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "base/exception.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "client/deadline.h"
#include "client/doctor/checks.h"
#include "client/text.h"
#include "support/error.h"
#include "utilities/arguments/arguments.h"

// The daemon's process is the one that listens, or the main process of the service where systemd
// listens. Its settings come from /proc/PID, which shows what it was really started with; where
// only root may read that, from the service as systemd sees it.

namespace {

constexpr std::size_t maxFileSize = std::size_t{1} << 20U;

std::string Read(int folder, char const* name) {
  std::string bytes;
  // Non-blocking, for a FIFO.
  Base::UniqueFd const file(openat(folder, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  std::array<char, 4096> piece;
  while (file && bytes.size() < maxFileSize) {
    ssize_t const count = read(file.Get(), piece.data(), piece.size());
    if (count <= 0) break;
    bytes.append(piece.data(), static_cast<std::size_t>(count));
  }
  return bytes;
}

std::string GetProcessFolder(pid_t pid) { return "/proc/" + std::to_string(pid); }

// Empty for root, whom systemd need not name, and for a user whom nobody knows.
std::optional<uid_t> GetUserId(std::string const& name) {
  if (auto const number = Base::ParseNumber<uid_t>(name)) return number.Get();
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 16384> texts;
  getpwnam_r(name.c_str(), &entry, texts.data(), texts.size(), &found);
  return found != nullptr ? std::optional(found->pw_uid) : std::nullopt;
}

bool IsTrustedUser(uid_t uid) { return uid == 0 || uid == geteuid(); }

// Whether the folder is that of a ktclientd which this user trusts: root runs the commands of its
// PATH. The credentials of a socket are those of the process that once listened, and its number may
// be that of another process now.
bool IsTrustedDaemon(int folder) {
  if (Read(folder, "comm") != "ktclientd\n") return false;
  std::istringstream status(Read(folder, "status"));
  for (std::string line; std::getline(status, line);) {
    constexpr std::string_view key = "Uid:\t";
    if (!line.starts_with(key)) continue;
    // The real, effective, saved and file system one. A program with a set-user-ID bit can have the
    // environment of another user.
    std::istringstream uids(line.substr(key.size()));
    int count = 0;
    for (std::string text; uids >> text; ++count) {
      auto const uid = Base::ParseNumber<uid_t>(text);
      if (!uid || !IsTrustedUser(uid.Get())) return false;
    }
    return count == 4;
  }
  return false;
}

using Settings = std::map<std::string, std::string>;

constexpr std::string_view variablePrefix = "KESTREL_";

void AddVariable(Findings& findings, Settings& settings, std::string_view variable) {
  auto const equals = variable.find('=');
  if (equals == std::string_view::npos) return;
  std::string_view const name = variable.substr(0, equals);
  std::string const value(variable.substr(equals + 1));
  if (name == "PATH") findings.path = value;
  if (name.starts_with(variablePrefix))
    settings[NormaliseArgumentName(name.substr(variablePrefix.size()))] = value;
}

// "--name=value", "--name:value" or "--name".
void AddOption(Settings& settings, std::string_view word) {
  if (!word.starts_with("--")) return;
  word.remove_prefix(2);
  auto const end = std::min(word.find_first_of(":="), word.size());
  settings[NormaliseArgumentName(word.substr(0, end))] =
      word.substr(std::min(end + 1, word.size()));
}

// The assignments of an environment file, see systemd.exec(5).
void AddEnvironmentFile(Findings& findings, Settings& settings, std::string const& path) {
  for (std::string const& line : SplitAssignments(Read(AT_FDCWD, path.c_str()))) {
    std::string variable;
    for (std::string const& word : SplitWords(line))
      variable += (variable.empty() ? "" : " ") + word;
    if (!variable.starts_with('#') && !variable.starts_with(';'))
      AddVariable(findings, settings, variable);
  }
}

template <typename Add>
void ForEachText(std::string const& texts, Add add) {
  std::istringstream stream(texts);
  for (std::string text; std::getline(stream, text, '\0');) add(text);
}

// The credentials are those of the last process that called listen(): systemd until the daemon has
// begun to listen. The number 1 alone would not do: the first process of a container can be the
// daemon itself.
bool IsServedBySystemd(Findings const& findings) {
  bool const isInstalled = !findings.GetServiceProperty("ExecStart").empty();
  return isInstalled &&
         (!findings.server || findings.server->pid == 1 ||
          std::to_string(findings.server->pid) == findings.GetServiceProperty("MainPID"));
}

// "{ path=/usr/sbin/ktclientd ; argv[]=..."
std::string GetServiceProgram(Findings const& findings) {
  constexpr std::string_view key = "path=";
  std::string const text = findings.GetServiceProperty("ExecStart");
  auto const begin = text.find(key);
  if (begin == std::string::npos || !IsServedBySystemd(findings)) return {};
  return text.substr(begin + key.size(), text.find(" ;", begin) - begin - key.size());
}

// The settings of the service as systemd would start it.
void AddServiceSettings(Findings& findings) {
  Settings settings;
  constexpr std::string_view key = "argv[]=";
  std::string const program = findings.GetServiceProperty("ExecStart");
  if (auto const begin = program.find(key); begin != std::string::npos) {
    auto const end = program.find(" ; ", begin);
    for (std::string const& word : SplitWords(program.substr(begin, end - begin)))
      AddOption(settings, word);
  }
  for (std::string const& variable : SplitWords(findings.GetServiceProperty("Environment")))
    AddVariable(findings, settings, variable);
  for (std::string const& path : GetEnvironmentFiles(findings))
    AddEnvironmentFile(findings, settings, path);
  for (std::string const& variable : SplitWords(findings.GetServiceProperty("UnsetEnvironment"))) {
    std::string_view const name = std::string_view(variable).substr(0, variable.find('='));
    if (name.starts_with(variablePrefix))
      settings.erase(NormaliseArgumentName(name.substr(variablePrefix.size())));
  }
  findings.settings = std::move(settings);
  findings.daemonUser = GetUserId(findings.GetServiceProperty("User"));
}

bool Exists(std::string const& path) { return access(path.c_str(), F_OK) == 0; }

// Answers instead of a check that needs the daemon's process, or a view into it.
void AddNoDaemon(Findings& findings, std::string_view check, std::string const& what) {
  if (findings.daemon != 0) {
    findings.AddNeedsRoot(check, what);
  } else {
    findings.AddProblem(check, CheckState::NotChecked, "daemon-not-found",
                        "No process of the daemon was found");
  }
}

// The soft limit; empty when it is "unlimited".
Base::Maybe<std::uint64_t> GetDescriptorLimit(pid_t pid) {
  std::istringstream limits(Read(AT_FDCWD, (GetProcessFolder(pid) + "/limits").c_str()));
  constexpr std::string_view key = "Max open files";
  for (std::string line; std::getline(limits, line);) {
    if (!line.starts_with(key)) continue;
    std::istringstream rest(line.substr(key.size()));
    std::string soft;
    rest >> soft;
    return Base::ParseNumber<std::uint64_t>(soft);
  }
  return {};
}

void AddTraceFile(Findings& findings, std::string const& path, struct stat const& file) {
  constexpr std::string_view check = "trace-file";
  constexpr off_t largeSize = off_t{64} << 20U;
  nlohmann::json const facts{
      {"path", path}, {"mode", GetModeText(file.st_mode)}, {"bytes", file.st_size}};
  std::string const maxSize = findings.GetSetting("trace_file_max_size", "0");
  if ((file.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    findings.AddProblem(check, CheckState::Warning, "trace-file-open",
                        "Other users may use the trace file " + path +
                            ", which has responses: mode " + GetModeText(file.st_mode),
                        facts);
  } else if (file.st_size > largeSize && Base::ParseNumber<std::int64_t>(maxSize).Get() == 0) {
    findings.AddProblem(check, CheckState::Warning, "trace-file-large",
                        "The trace file " + path + " has " + std::to_string(file.st_size) +
                            " bytes, and nothing rotates it",
                        facts);
  } else {
    findings.AddOk(check,
                   "The trace file " + path + " has mode " + GetModeText(file.st_mode) + " and " +
                       std::to_string(file.st_size) + " bytes",
                   facts);
  }
}

}  // namespace

Findings FindDaemon(Findings findings) {
  // Nothing of another user's server is used: its environment names the folders of commands.
  if (findings.server && IsTrustedUser(findings.server->uid))
    findings.daemon = findings.server->pid;
  if (IsServedBySystemd(findings)) {
    auto const pid = Base::ParseNumber<pid_t>(findings.GetServiceProperty("MainPID"));
    findings.daemon = pid ? pid.Get() : 0;
    AddServiceSettings(findings);
  }
  std::string const name = GetProcessFolder(findings.daemon);
  Base::UniqueFd const folder(open(name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder || !IsTrustedDaemon(folder.Get())) {
    findings.daemon = 0;
    return findings;
  }
  // The environment overrides the command line, as in the daemon.
  std::string const environment = Read(folder.Get(), "environ");
  if (environment.empty()) return findings;
  Settings settings;
  ForEachText(Read(folder.Get(), "cmdline"),
              [&](std::string const& word) { AddOption(settings, word); });
  ForEachText(environment,
              [&](std::string const& variable) { AddVariable(findings, settings, variable); });
  findings.settings = std::move(settings);
  // Root sees the files as the daemon does, behind the mounts of its sandbox.
  if (Exists(name + "/root/proc")) findings.root = name + "/root";
  return findings;
}

std::vector<std::string> GetEnvironmentFiles(Findings const& findings) {
  std::vector<std::string> files;
  // "/etc/default/ktclientd (ignore_errors=yes)"
  for (std::string const& line : Split(findings.GetServiceProperty("EnvironmentFiles")))
    files.push_back(line.substr(0, line.rfind(" (")));
  if (files.empty()) files.emplace_back("/etc/default/ktclientd");
  return files;
}

TracePlace GetTracePlace(Findings const& findings) {
  std::filesystem::path path = findings.GetSetting("trace_file", "");
  if (path.empty()) path = findings.GetSetting("logging_file", "");
  bool const isNewAtEachStart = path.empty() && findings.IsSettingTrue("trace_file_prefix");
  if (path.empty())
    path = std::filesystem::path(findings.GetSetting("trace_folder", "/tmp/")) / "ktclientd.log";
  return {.path = path, .folder = path.parent_path(), .isNewAtEachStart = isNewAtEachStart};
}

Findings FindService(DoctorOptions const& options, std::vector<Support::Error>& errors) {
  Findings findings;
  findings.options = options;
  for (auto* const check : {CheckSocket, CheckConnection, CheckSocketUnit, FindDaemon}) {
    try {
      findings = check(findings);
    } catch (std::exception const& err) {
      errors.push_back(Support::Error::FromException(err));
    }
  }
  return findings;
}

Findings CheckVersion(Findings findings) {
  std::string program = GetServiceProgram(findings);
  // The running program, even where an update has replaced its file.
  if (Exists(GetProcessFolder(findings.daemon) + "/exe"))
    program = GetProcessFolder(findings.daemon) + "/exe";
  if (program.empty()) {
    AddNoDaemon(findings, "version", "which program the daemon runs");
    return findings;
  }
  CommandResult const result =
      RunCommand({.words = {program, "--version"}, .limit = findings.options.timeout});
  std::string const version(Base::TrimWhiteSpace(result.output));
  nlohmann::json const facts{{"client", KTCLIENTD_VERSION}, {"daemon", version}};
  if (version == "ktclientd " KTCLIENTD_VERSION) {
    findings.AddOk("version", "Client and daemon have the version " KTCLIENTD_VERSION, facts);
  } else {
    findings.AddProblem(
        "version", CheckState::Warning, "version-differs",
        "The client has the version " KTCLIENTD_VERSION ", and the daemon says: " + version, facts);
  }
  return findings;
}

Findings CheckDescriptors(Findings findings) {
  constexpr std::string_view check = "descriptors";
  std::error_code error;
  std::uint64_t open = 0;
  std::filesystem::directory_iterator entry(GetProcessFolder(findings.daemon) + "/fd", error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) ++open;
  if (findings.daemon == 0 || error) {
    AddNoDaemon(findings, check, "the descriptors of the daemon");
    return findings;
  }
  constexpr std::uint64_t fewDescriptors = 16;  // the daemon keeps 8 free
  auto const limit = GetDescriptorLimit(findings.daemon);
  std::string const limitText = limit ? std::to_string(limit.Get()) : "unlimited";
  nlohmann::json const facts{{"open", open}, {"limit", limitText}};
  std::string const sentence =
      "The daemon has " + std::to_string(open) + " open descriptors, its limit is " + limitText;
  if (limit && open + fewDescriptors >= limit.Get()) {
    findings.AddProblem(check, CheckState::Warning, "descriptors-low", sentence, facts);
  } else {
    findings.AddOk(check, sentence, facts);
  }
  return findings;
}

Findings CheckTraceFile(Findings findings) {
  constexpr std::string_view check = "trace-file";
  if (!findings.settings) {
    AddNoDaemon(findings, check, "the settings of the daemon");
    return findings;
  }
  auto const [path, folder, isNewAtEachStart] = GetTracePlace(findings);
  struct stat file {};
  int const result = stat((findings.root + (isNewAtEachStart ? folder : path)).c_str(), &file);
  if (result == -1 && (errno == EACCES || errno == EPERM)) {
    findings.AddNeedsRoot(check, "the trace file " + path);
  } else if (result == -1 && findings.daemon == 0) {
    findings.AddOk(check, "There is no trace file " + path + " yet");
  } else if (result == -1) {
    findings.AddProblem(
        check, CheckState::Warning, "trace-file-missing",
        "The daemon runs without its trace file " + path + ": " + Base::ErrnoText(errno),
        {{"path", path}, {"folder", folder}});
  } else if (isNewAtEachStart) {
    findings.AddOk(check, "The daemon makes a new trace file in " + folder + " at each start",
                   {{"folder", folder}});
  } else {
    AddTraceFile(findings, path, file);
  }
  return findings;
}
