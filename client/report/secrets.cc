#include "client/report/secrets.h"

#include <grp.h>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/exception.h"
#include "base/text.h"
#include "client/deadline.h"
#include "client/doctor/checks.h"
#include "client/request.h"
#include "client/text.h"
#include "support/error.h"
#include "support/file_manager.h"
#include "utilities/os.h"

// The built-in rules of the redactor find values by their form, such as addresses, or by the words
// beside them. A name has no form, so the redactor must know it. The sources below have the names
// that traces, journals and units can mention.
//
// Only real users are secret. The names of system users, such as root, are the same on all
// machines, and without them a report could not be understood.

namespace {

constexpr uid_t firstRealUser = 1000;
// systemd's dynamic users, and nobody. All other large ids can be those of people.
constexpr uid_t firstDynamicUser = 61184;
constexpr uid_t nobody = 65534;
constexpr std::size_t maxNameFile = std::size_t{16} << 20U;
constexpr std::size_t maxSecretLength = 4096;
constexpr std::size_t maxHomes = 100'000;

// What a machine has in place of a number. It identifies nobody, and it explains failures.
bool IsPlaceholder(std::string_view value) {
  constexpr std::array<std::string_view, 10> placeholders = {
      "none",           "not specified", "not available",        "not applicable",
      "default string", "unknown",       "system serial number", "to be filled by o.e.m.",
      "o.e.m.",         "asset tag"};
  return std::ranges::find(placeholders, Base::LowerCased(value)) != placeholders.end() ||
         value.find_first_not_of("0- ") == std::string_view::npos;
}

void Add(ReportFindings& findings, char const* rule, std::string_view value) {
  value = Base::TrimWhiteSpace(value);
  if (IsPlaceholder(value)) return;
  if (value.size() > maxSecretLength) {
    findings.unknown.push_back("a value of the rule " + std::string(rule) + ": it has more than " +
                               std::to_string(maxSecretLength) + " bytes");
  } else {
    findings.secrets.push_back({rule, std::string(value)});
  }
}

// Empty when there is no such file. Without permission to read a file of the kernel, too: it shows
// the numbers of the machine to root only, and the daemon may tell them.
std::string ReadNames(ReportFindings& findings, std::string const& path) {
  try {
    return Support::FileManager::ReadFile(path, maxNameFile);
  } catch (Support::Error const& err) {
    bool const isHidden = path.starts_with("/sys/") && err.GetCode() == "file-permission-denied";
    if (err.GetCode() != "file-not-found" && !isHidden)
      findings.unknown.push_back("the names in " + path + ": " + err.what());
    return {};
  }
}

// Empty when the command is not there or fails: it has nothing to say then.
std::string GetOutput(ReportFindings& findings, ReportContext const& context,
                      std::vector<std::string> const& words) {
  try {
    CommandResult result =
        RunCommand({.words = words, .limit = context.limits.command, .path = GetCommandPath()});
    return std::move(result.output);
  } catch (Support::Error const& err) {
    findings.unknown.push_back("the names that " + words[0] + " prints: " + err.what());
    return {};
  }
}

// Unless nobody is there.
bool IsFailure(int error) {
  return error != 0 && error != ENOENT && error != ESRCH && error != EBADF && error != EPERM;
}

// A domain without a dot can be any word: "local" would replace a part of /usr/local.
void AddDomain(ReportFindings& findings, std::string_view name) {
  name = Base::TrimWhiteSpace(name);
  while (name.ends_with('.')) name.remove_suffix(1);
  if (name.find('.', 1) != std::string_view::npos) Add(findings, "domain", name);
}

// "pc.example.org": the whole name, its first part and the domain.
void AddHost(ReportFindings& findings, std::string_view name) {
  name = Base::TrimWhiteSpace(name);
  std::size_t const dot = std::min(name.find('.'), name.size());
  std::string_view const host = name.substr(0, dot);
  if (host == "localhost" || host == "(none)") return;
  Add(findings, "host", host);
  if (dot == name.size()) return;
  Add(findings, "host", name);
  AddDomain(findings, name.substr(dot + 1));
}

ReportFindings FindHost(ReportContext const& /*context*/) {
  ReportFindings findings;
  utsname system{};
  uname(&system);
  std::string const host = system.nodename;
  AddHost(findings, host);
  AddHost(findings, ReadNames(findings, "/etc/hostname"));
  for (std::string const& line : Split(ReadNames(findings, "/etc/hosts"))) {
    std::vector<std::string> const words = SplitWords(line);
    // The address that Debian gives to the machine's own name, and any other with this name.
    bool const isOwn = !words.empty() &&
                       (words[0] == "127.0.1.1" || std::ranges::find(words, host) != words.end());
    for (std::size_t i = 1; i < words.size() && isOwn; ++i) AddHost(findings, words[i]);
  }
  for (std::string const& line : Split(ReadNames(findings, "/etc/machine-info"))) {
    std::size_t const separator = line.find('=');
    if (separator == std::string::npos || line.starts_with("CHASSIS")) continue;
    for (std::string const& value : SplitWords(line.substr(separator + 1)))
      Add(findings, "host", value);
  }
  for (std::string const& line : Split(ReadNames(findings, "/etc/resolv.conf"))) {
    std::vector<std::string> const words = SplitWords(line);
    for (std::size_t i = 1; i < words.size() && (words[0] == "search" || words[0] == "domain"); ++i)
      AddDomain(findings, words[i]);
  }
  for (char const* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"})
    Add(findings, "machine-id", ReadNames(findings, path));
  return findings;
}

ReportFindings FindRealm(ReportContext const& context) {
  ReportFindings findings;
  for (std::string const& realm :
       Split(GetOutput(findings, context, {"realm", "list", "--name-only"})))
    AddDomain(findings, realm);
  return findings;
}

void AddUser(ReportFindings& findings, std::string_view name, std::string_view realName,
             std::string_view home) {
  Add(findings, "user", name);
  realName = realName.substr(0, realName.find(','));
  // One word can be a common one, such as "Debian".
  if (realName.find(' ') != std::string_view::npos) Add(findings, "user", realName);
  if (home.find('/', 1) != std::string_view::npos) Add(findings, "home", home);
}

bool IsRealUser(uid_t user) {
  return user >= firstRealUser && (user < firstDynamicUser || user > nobody);
}

ReportFindings FindLocalUsers(ReportContext const& /*context*/) {
  ReportFindings findings;
  for (std::string const& line : Split(ReadNames(findings, "/etc/passwd"))) {
    std::vector<std::string> const fields = Split(line, ':');
    if (fields.size() < 6) continue;
    uid_t user = 0;
    std::from_chars(fields[2].data(), fields[2].data() + fields[2].size(), user);
    // Older systems gave smaller ids to people, too.
    bool const isPerson = user > 0 && fields[5].starts_with("/home/") && line.ends_with("sh");
    if (IsRealUser(user) || isPerson) AddUser(findings, fields[0], fields[4], fields[5]);
  }
  return findings;
}

// Users of a directory service are not in /etc/passwd. Their ids can be any.
void AddKnownUser(ReportFindings& findings, passwd const* user) {
  if (user != nullptr && user->pw_uid >= firstRealUser && user->pw_uid != nobody)
    AddUser(findings, user->pw_name, user->pw_gecos, user->pw_dir);
}

std::string GetVariable(char const* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
  char const* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

// The names of this user, as far as nobody has to be asked for them.
std::vector<std::string> GetOwnNames() {
  std::vector<std::string> names;
  for (char const* variable : {"SUDO_USER", "USER", "LOGNAME"}) {
    std::string name = GetVariable(variable);
    if (!name.empty() && name != "root") names.push_back(std::move(name));
  }
  return names;
}

ReportFindings FindOwnNames(ReportContext const& /*context*/) {
  ReportFindings findings;
  for (std::string const& name : GetOwnNames()) AddUser(findings, name, "", GetVariable("HOME"));
  return findings;
}

// Only the names: a home can be a mount of a server that does not respond.
ReportFindings FindHomes(ReportContext const& /*context*/) {
  ReportFindings findings;
  std::error_code error;
  std::filesystem::directory_iterator entry("/home", error);
  for (std::size_t i = 0; !error && entry != std::filesystem::directory_iterator(); ++i) {
    if (i == maxHomes) error = std::make_error_code(std::errc::file_too_large);
    std::string const name = entry->path().filename();
    if (name != "lost+found") Add(findings, "user", name);
    if (!error) entry.increment(error);
  }
  if (error && error != std::errc::no_such_file_or_directory)
    findings.unknown.push_back("the users with a folder in /home: " + error.message());
  return findings;
}

// This user and the members of the groups that may connect, also those of a directory service. Each
// question can hang.
ReportFindings FindOtherUsers(ReportContext const& context) {
  ReportFindings findings;
  std::vector<char> buffer(std::size_t{1} << 20U);
  passwd user{};
  passwd* found = nullptr;
  auto const check = [&findings](int error, std::string const& what) {
    if (IsFailure(error)) findings.unknown.push_back(what + ": " + Base::ErrnoText(error));
    return error == 0;
  };
  if (check(getpwuid_r(getuid(), &user, buffer.data(), buffer.size(), &found), "this user"))
    AddKnownUser(findings, found);
  for (std::string const& name : GetOwnNames()) {
    if (check(getpwnam_r(name.c_str(), &user, buffer.data(), buffer.size(), &found), "this user"))
      AddKnownUser(findings, found);
  }
  group group{};
  ::group* foundGroup = nullptr;
  auto const addMembers = [&](int error) {
    if (!check(error, "the members of the group of the socket") || foundGroup == nullptr) return;
    for (char** member = group.gr_mem; *member != nullptr; ++member)
      if (std::string_view(*member) != "root") Add(findings, "user", *member);
  };
  addMembers(getgrnam_r("ktclientd", &group, buffer.data(), buffer.size(), &foundGroup));
  auto const& socket = context.daemon->socketFile;
  if (socket && socket->st_gid != 0)
    addMembers(getgrgid_r(socket->st_gid, &group, buffer.data(), buffer.size(), &foundGroup));
  return findings;
}

// As the kernel shows them, to root only.
void AddKernelNumbers(ReportFindings& findings) {
  std::string const folder = "/sys/class/dmi/id/";
  for (char const* name : {"product_serial", "board_serial", "chassis_serial"})
    Add(findings, "serial-number", ReadNames(findings, folder + name));
  for (char const* name : {"board_asset_tag", "chassis_asset_tag"})
    Add(findings, "asset-tag", ReadNames(findings, folder + name));
  Add(findings, "uuid", ReadNames(findings, folder + "product_uuid"));
}

void AddDmidecodeNumbers(ReportFindings& findings, ReportContext const& context) {
  // The system, its board and its chassis.
  for (std::string const& line :
       Split(GetOutput(findings, context, {"dmidecode", "--type", "1,2,3"}))) {
    std::string_view const text = Base::TrimWhiteSpace(line);
    std::size_t const separator = text.find(": ");
    if (separator == std::string_view::npos) continue;
    std::string_view const name = text.substr(0, separator);
    std::string_view const value = text.substr(separator + 2);
    if (name == "Serial Number") Add(findings, "serial-number", value);
    if (name == "Asset Tag") Add(findings, "asset-tag", value);
    if (name == "UUID") Add(findings, "uuid", value);
  }
}

// What the daemon answers is secret wherever else it stands, such as in the trace. Returns the
// value at `place`; null when the daemon has none.
nlohmann::json Ask(ReportContext const& context, char const* sensor, char const* place) {
  nlohmann::json const response = ParseResponse(AskSensor(context, sensor));
  return response.value(nlohmann::json::json_pointer(place), nlohmann::json());
}

ReportFindings FindNumbers(ReportContext const& context) {
  ReportFindings findings;
  AddKernelNumbers(findings);
  AddDmidecodeNumbers(findings, context);
  bool const isKnown = std::ranges::find(findings.secrets, "serial-number", &ReportSecret::rule) !=
                       findings.secrets.end();
  std::string failure = "the daemon does not know it";
  try {
    auto const serial = Ask(context, "hardware", "/sensor/hardware/bios_serial_number");
    if (serial.is_string()) {
      Add(findings, "serial-number", serial.get<std::string>());
      return findings;
    }
  } catch (Support::Error const& err) {
    failure = err.what();
  }
  // A machine without tables of its firmware has none.
  if (!isKnown && HasFirmwareTables())
    findings.unknown.push_back("the serial number of this machine: " + failure);
  return findings;
}

// Their values and, because names of devices are common there, the names of their files.
ReportFindings FindCertificates(ReportContext const& context) {
  constexpr std::string_view ending = ".pem";
  // They say nothing, and without them a report could not be understood.
  constexpr std::array<std::string_view, 7> common = {"ca",     "cert", "certificate", "client",
                                                      "server", "igel", "root"};
  ReportFindings findings;
  int error = 0;
  std::string const folder = GetTrustStore(*context.daemon);
  for (std::string const& name : ListCertificates(context.daemon->root + folder, error)) {
    Add(findings, "certificate", name);
    std::string const stem = name.substr(0, name.size() - ending.size());
    if (stem.size() > 2 && std::ranges::find(common, Base::LowerCased(stem)) == common.end())
      Add(findings, "certificate", stem);
  }
  if (error != 0 && error != ENOENT && error != ENOTDIR)
    findings.unknown.push_back("the names of the certificates in " + folder + ": " +
                               Base::ErrnoText(error));
  Platform const platform = GetPlatform();
  if (platform != Platform::Igel11 && platform != Platform::Igel12) return findings;
  if (!context.daemon->settings)
    findings.unknown.emplace_back(
        "the names of the certificates: the settings, which can name another folder, are unknown");
  try {
    auto const list = Ask(context, "igel", "/sensor/igel/management_certificates");
    if (!list.is_array()) throw Support::Error("no-answer", "the daemon does not know them");
    for (auto const& certificate : list) {
      for (auto const& value : certificate)
        if (value.is_string()) Add(findings, "certificate", value.get<std::string>());
    }
  } catch (Support::Error const& err) {
    findings.unknown.push_back(std::string("the values of the certificates: ") + err.what());
  }
  return findings;
}

// The redactor finds a secret by the word beside it, but sees only the first word of its value.
void AddIfSecret(ReportFindings& findings, std::string_view assignment) {
  constexpr std::array<std::string_view, 7> marks = {"password",   "passwd", "passphrase", "secret",
                                                     "credential", "token",  "api_key"};
  std::size_t const separator = std::min(assignment.find('='), assignment.size());
  std::string const name = Base::LowerCased(assignment.substr(0, separator));
  std::string_view const value = assignment.substr(std::min(separator + 1, assignment.size()));
  bool const isSecret = std::ranges::any_of(
      marks, [&name](std::string_view mark) { return name.find(mark) != std::string::npos; });
  if (!isSecret || value == "true" || value == "false") return;
  for (std::string const& line : Split(value)) Add(findings, "token", line);
}

ReportFindings FindSecretSettings(ReportContext const& context) {
  ReportFindings findings;
  for (std::string const& variable : SplitWords(context.daemon->GetServiceProperty("Environment")))
    AddIfSecret(findings, variable);
  for (std::string const& path : GetEnvironmentFiles(*context.daemon)) {
    if (access(path.c_str(), R_OK) != 0) continue;  // so it is not in the report either
    for (std::string const& line : SplitAssignments(ReadNames(findings, path))) {
      std::string assignment;
      for (std::string const& word : SplitWords(line))
        assignment += (assignment.empty() ? "" : " ") + word;
      AddIfSecret(findings, assignment);
    }
  }
  return findings;
}

}  // namespace

std::vector<ReportStep> GetSecretSteps(ReportContext const& context) {
  std::vector<ReportStep> steps;
  auto const add = [&](char const* what, std::chrono::seconds limit,
                       ReportFindings (*find)(ReportContext const&)) {
    steps.push_back(
        {what, limit + std::chrono::seconds(2), [context, find] { return find(context); }});
  };
  auto const& [answer, command, redaction] = context.limits;
  add("the name of this user", command, FindOwnNames);
  add("the name of the machine", command, FindHost);
  add("the domain of the machine", command, FindRealm);
  add("the numbers of the machine", answer + command, FindNumbers);
  add("the certificates", answer + command, FindCertificates);
  add("the secrets in the settings", command, FindSecretSettings);
  add("the users with a folder in /home", command, FindHomes);
  add("the local users", command, FindLocalUsers);
  add("the users of the name service", 2 * command, FindOtherUsers);
  return steps;
}
