#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/doctor/check.h"
#include "client/doctor/doctor.h"
#include "net/socket_linux.h"
#include "utilities/os.h"

// What the checks have found so far: their results, and the facts that later checks build on. A
// plain value: each check works on a copy of its own, so an abandoned check cannot disturb the
// others.
struct Findings {
  DoctorOptions options;
  std::vector<CheckResult> results;

  std::optional<Platform> platform;
  std::optional<struct stat> socketFile;
  std::optional<Net::PeerCredentials> server;
  std::optional<std::string> serialNumber;  // from the daemon's response
  // As `systemctl show` prints them, by unit.
  std::map<std::string, std::map<std::string, std::string>> units;
  pid_t daemon = 0;                 // 0: none is known
  std::optional<uid_t> daemonUser;  // whom User= of the service names
  // Of the daemon, by normalised name (utilities/arguments/arguments.h). Empty: not known.
  std::optional<std::map<std::string, std::string>> settings;
  // In which the daemon finds its commands.
  std::string path = "/usr/sbin:/usr/bin:/sbin:/bin";
  // Files of the daemon are below this folder: the root folder as the daemon sees it.
  std::string root;

  void AddOk(std::string_view check, std::string sentence,
             nlohmann::json facts = nlohmann::json::object());

  // `fields` must have what the advice for `code` names.
  void AddProblem(std::string_view check, CheckState state, std::string_view code,
                  std::string sentence, nlohmann::json fields = nlohmann::json::object());

  // For a check that an earlier one made pointless.
  void AddNotChecked(std::string_view check, std::string_view earlierCheck);

  // For a check that only root can make.
  void AddNeedsRoot(std::string_view check, std::string const& what);

  // Whether the check is not ok, or has no result.
  bool HasProblem(std::string_view check) const;

  // The value of a property of the service, a line for each time it is set; empty when it is not
  // known.
  std::string GetServiceProperty(std::string const& name) const;

  // The value of a setting of the daemon; `defaultValue` when it has none.
  std::string GetSetting(std::string const& name, std::string_view defaultValue) const;
  bool IsSettingTrue(std::string const& name) const;
};

// "0640"
std::string GetModeText(mode_t mode);

// The names in the databases of users and groups; the numbers as text where there is none.
std::string GetUserName(uid_t uid);
std::string GetGroupName(gid_t gid);
