#include "client/report/secrets.h"

#include <grp.h>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "base/text.h"
#include "client/deadline.h"
#include "client/report/text.h"
#include "client/request.h"
#include "support/error.h"
#include "support/file_manager.h"

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
constexpr std::size_t maxNameFile = std::size_t{1} << 20U;

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
  if (!IsPlaceholder(value)) findings.secrets.push_back({rule, std::string(value)});
}

// Empty when the file cannot be read.
std::string ReadNames(std::string const& path) {
  try {
    return Support::FileManager::ReadFile(path, maxNameFile);
  } catch (Support::Error const&) {
    return {};
  }
}

// Empty when the command fails.
std::string GetOutput(std::vector<std::string> const& words) {
  try {
    return RunCommand({.words = words, .path = GetCommandPath()}).output;
  } catch (Support::Error const&) {
    return {};
  }
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
  Add(findings, "domain", name.substr(dot + 1));
}

ReportFindings FindHost() {
  ReportFindings findings;
  utsname system{};
  uname(&system);
  std::string const host = system.nodename;
  AddHost(findings, host);
  AddHost(findings, ReadNames("/etc/hostname"));
  for (std::string const& line : Split(ReadNames("/etc/hosts"))) {
    std::vector<std::string> const words = SplitWords(line);
    // The address that Debian gives to the machine's own name, and any other with this name.
    bool const isOwn = !words.empty() &&
                       (words[0] == "127.0.1.1" || std::ranges::find(words, host) != words.end());
    for (std::size_t i = 1; i < words.size() && isOwn; ++i) AddHost(findings, words[i]);
  }
  for (std::string const& line : Split(ReadNames("/etc/machine-info"))) {
    std::size_t const separator = line.find('=');
    if (separator == std::string::npos || line.starts_with("CHASSIS")) continue;
    for (std::string const& value : SplitWords(line.substr(separator + 1)))
      Add(findings, "host", value);
  }
  for (std::string const& line : Split(ReadNames("/etc/resolv.conf"))) {
    std::vector<std::string> const words = SplitWords(line);
    for (std::size_t i = 1; i < words.size() && (words[0] == "search" || words[0] == "domain"); ++i)
      Add(findings, "domain", words[i]);
  }
  for (char const* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"})
    Add(findings, "machine-id", ReadNames(path));
  for (std::string const& realm : Split(GetOutput({"realm", "list", "--name-only"})))
    Add(findings, "domain", realm);
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

ReportFindings FindLocalUsers() {
  ReportFindings findings;
  for (std::string const& line : Split(ReadNames("/etc/passwd"))) {
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

// Who may be in the trace: those who have a home here, this user, and the members of the group.
ReportFindings FindOtherUsers() {
  ReportFindings findings;
  try {
    auto const homes = Support::FileManager::Walk("/home", {.maxCount = 10000, .maxDepth = 1});
    for (auto const& home : homes.entries) Add(findings, "user", home.path);
  } catch (Support::Error const&) {  // there is no such folder
  }
  std::vector<char> buffer(std::size_t{1} << 20U);
  passwd user{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &user, buffer.data(), buffer.size(), &found) == 0)
    AddKnownUser(findings, found);
  for (char const* variable : {"SUDO_USER", "USER", "LOGNAME"}) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
    char const* const name = std::getenv(variable);
    if (name == nullptr || std::string_view(name) == "root") continue;
    Add(findings, "user", name);
    if (getpwnam_r(name, &user, buffer.data(), buffer.size(), &found) == 0)
      AddKnownUser(findings, found);
  }
  group group{};
  ::group* foundGroup = nullptr;
  if (getgrnam_r("ktclientd", &group, buffer.data(), buffer.size(), &foundGroup) == 0 &&
      foundGroup != nullptr) {
    for (char** member = group.gr_mem; *member != nullptr; ++member)
      if (std::string_view(*member) != "root") Add(findings, "user", *member);
  }
  return findings;
}

// Serial numbers as the kernel shows them, to root only.
void AddKernelNumbers(ReportFindings& findings) {
  std::string const folder = "/sys/class/dmi/id/";
  for (char const* name : {"product_serial", "board_serial", "chassis_serial"})
    Add(findings, "serial-number", ReadNames(folder + name));
  for (char const* name : {"board_asset_tag", "chassis_asset_tag"})
    Add(findings, "asset-tag", ReadNames(folder + name));
  Add(findings, "uuid", ReadNames(folder + "product_uuid"));
}

void AddDmidecodeNumbers(ReportFindings& findings) {
  // The system, its board and its chassis.
  for (std::string const& line : Split(GetOutput({"dmidecode", "--type", "1,2,3"}))) {
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

// What the daemon answers is secret wherever else it stands, such as in the trace.
void AddAnswers(ReportFindings& findings, Net::Address const& address) {
  nlohmann::json const hardware = ParseResponse(AskSensor(address, "hardware"));
  nlohmann::json::json_pointer const serial("/sensor/hardware/bios_serial_number");
  if (hardware.contains(serial) && hardware[serial].is_string())
    Add(findings, "serial-number", hardware[serial].get<std::string>());
  nlohmann::json const igel = ParseResponse(AskSensor(address, "igel"));
  nlohmann::json::json_pointer const list("/sensor/igel/management_certificates");
  if (!igel.contains(list)) return;
  for (auto const& certificate : igel[list]) {
    for (auto const& value : certificate)
      if (value.is_string()) Add(findings, "certificate", value.get<std::string>());
  }
}

ReportFindings FindNumbers(Net::Address const& address) {
  ReportFindings findings;
  AddKernelNumbers(findings);
  AddDmidecodeNumbers(findings);
  bool const isKnown = std::ranges::find(findings.secrets, "serial-number", &ReportSecret::rule) !=
                       findings.secrets.end();
  try {
    AddAnswers(findings, address);
  } catch (Support::Error const& err) {
    if (isKnown) return findings;
    findings.gaps.emplace_back(
        "serial-number-unknown",
        std::string("The redactor does not know the serial number of this machine, and replaces it "
                    "only where its name stands beside it. The daemon did not tell it: ") +
            err.what(),
        GetPermissionAdvice());
  }
  return findings;
}

}  // namespace

std::vector<ReportStep> GetSecretSteps(Net::Address const& address) {
  using std::chrono::seconds;
  return {{"the name of the machine", seconds(20), FindHost},
          {"the local users", seconds(10), FindLocalUsers},
          {"the other users", seconds(20), FindOtherUsers},
          {"the numbers of the machine", seconds(90), [address] { return FindNumbers(address); }}};
}
