#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "client/deadline.h"
#include "client/doctor/checks.h"
#include "client/text.h"
#include "support/error.h"

// `systemctl show` and not D-Bus: it is there wherever systemd is, also without a bus daemon, and
// it prints the same to root and to other users.

namespace {

using Unit = std::map<std::string, std::string>;

constexpr char const* socketUnit = "ktclientd.socket";
constexpr char const* serviceUnit = "ktclientd.service";
constexpr char const* properties =
    "--property=Id,LoadState,ActiveState,SubState,Result,UnitFileState,StateChangeTimestamp,"
    "NeedDaemonReload,DropInPaths,Listen,MainPID,ExecStart,Environment,EnvironmentFiles,"
    "UnsetEnvironment,User";

// The lines "name=value" of each unit; an empty line ends a unit. The lines of a name that comes
// more than once, such as Listen=, stay lines of its value.
std::map<std::string, Unit> ParseUnits(std::string const& text) {
  std::map<std::string, Unit> units;
  Unit unit;
  std::istringstream lines(text + "\n\n");
  for (std::string line; std::getline(lines, line);) {
    auto const equals = line.find('=');
    if (equals != std::string::npos) {
      std::string& value = unit[line.substr(0, equals)];
      if (!value.empty()) value += '\n';
      value += line.substr(equals + 1);
    } else if (!unit.empty()) {
      std::string const name = unit["Id"];
      units[name] = std::exchange(unit, {});
    }
  }
  return units;
}

// Returns false where systemctl gives the units to root only: without a bus daemon.
bool ReadUnits(Findings& findings) {
  CommandResult const result =
      RunCommand({.words = {"systemctl", "show", "--no-pager", properties, socketUnit, serviceUnit},
                  .limit = findings.options.timeout,
                  .withErrors = true});
  if (result.status != 0 && geteuid() != 0) return false;
  if (result.status != 0) {
    throw Support::Error("command-failed",
                         "systemctl failed: " + result.output.substr(0, result.output.find('\n')));
  }
  findings.units = ParseUnits(result.output);
  return true;
}

// Whether the socket unit listens on the address that is checked. A line of Listen= is
// "/run/ktclientd/ktclientd.sock (SequentialPacket)".
bool IsForThisAddress(Unit& unit, Net::Address const& address) {
  constexpr std::string_view prefix = "unix:";
  std::string const name = address.ToText().substr(prefix.size()) + " (";
  std::istringstream lines(unit["Listen"]);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name)) return true;
  }
  return unit["Listen"].empty();
}

nlohmann::json GetFacts(std::string const& name, Unit& unit) {
  return {{"unit", name},
          {"load", unit["LoadState"]},
          {"active", unit["ActiveState"]},
          {"sub", unit["SubState"]},
          {"result", unit["Result"]},
          {"file", unit["UnitFileState"]},
          {"since", unit["StateChangeTimestamp"]},
          {"drop_ins", SplitWords(unit["DropInPaths"])}};
}

// The problems that both units can have. Returns whether there was one.
bool AddUnitProblem(Findings& findings, std::string_view check, std::string const& name, Unit& unit,
                    nlohmann::json const& facts) {
  std::string const load = unit["LoadState"];
  if (load == "not-found") {
    findings.AddProblem(check, CheckState::NotChecked, "unit-not-installed",
                        "systemd has no unit " + name, facts);
  } else if (load == "masked") {
    findings.AddProblem(check, CheckState::Failed, "unit-masked", "The unit " + name + " is masked",
                        facts);
  } else if (load != "loaded") {
    findings.AddProblem(check, CheckState::Failed, "unit-not-loaded",
                        "systemd cannot load the unit " + name + " (" + load + ")", facts);
  } else if (unit["ActiveState"] == "failed") {
    findings.AddProblem(check, CheckState::Failed, "unit-failed",
                        "The unit " + name + " has failed (" + unit["Result"] + ") since " +
                            unit["StateChangeTimestamp"],
                        facts);
  } else if (unit["NeedDaemonReload"] == "yes") {
    findings.AddProblem(check, CheckState::Warning, "unit-changed",
                        "Files of the unit " + name + " have changed since systemd read them",
                        facts);
  } else {
    return false;
  }
  return true;
}

std::string Describe(std::string const& name, Unit& unit) {
  std::string text =
      "The unit " + name + " is " + unit["ActiveState"] + " (" + unit["SubState"] + ")";
  if (!unit["StateChangeTimestamp"].empty()) text += " since " + unit["StateChangeTimestamp"];
  auto const dropIns = SplitWords(unit["DropInPaths"]);
  for (std::string const& path : dropIns) {
    text += (path == dropIns.front() ? "; drop-ins: " : ", ") + path;
  }
  return text;
}

}  // namespace

Findings CheckSocketUnit(Findings findings) {
  constexpr std::string_view check = "socket-unit";
  if (access("/run/systemd/system", F_OK) == -1) {  // see sd_booted(3)
    findings.AddProblem(check, CheckState::NotChecked, "systemd-not-running",
                        "systemd does not run here");
    return findings;
  }
  if (!ReadUnits(findings)) {
    findings.AddNeedsRoot(check, "the units of systemd here");
    return findings;
  }
  Unit& unit = findings.units[socketUnit];
  nlohmann::json facts = GetFacts(socketUnit, unit);
  if (AddUnitProblem(findings, check, socketUnit, unit, facts)) return findings;
  if (!IsForThisAddress(unit, findings.options.address)) {
    // Of no interest as long as somebody else serves the address.
    bool const isServed = !findings.HasProblem("connection");
    facts["listen"] = unit["Listen"].substr(0, unit["Listen"].find(" ("));
    findings.AddProblem(
        check, isServed ? CheckState::NotChecked : CheckState::Warning, "unit-for-other-address",
        "The unit " + std::string(socketUnit) + " listens on " +
            facts["listen"].get<std::string>() + ", not on " + findings.options.address.ToText(),
        facts);
  } else if (unit["ActiveState"] != "active") {
    findings.AddProblem(check, CheckState::Failed, "socket-unit-stopped",
                        Describe(socketUnit, unit), facts);
  } else if (unit["UnitFileState"] == "disabled") {
    findings.AddProblem(check, CheckState::Warning, "socket-unit-disabled",
                        "The unit " + std::string(socketUnit) +
                            " is active, but it will not start at the next boot",
                        facts);
  } else {
    findings.AddOk(check, Describe(socketUnit, unit), facts);
  }
  return findings;
}

Findings CheckServiceUnit(Findings findings) {
  constexpr std::string_view check = "service-unit";
  if (findings.units.empty()) {
    findings.AddNotChecked(check, "socket-unit");
    return findings;
  }
  Unit& unit = findings.units[serviceUnit];
  nlohmann::json const facts = GetFacts(serviceUnit, unit);
  if (AddUnitProblem(findings, check, serviceUnit, unit, facts)) return findings;
  // After an answer the state is of no interest: inactive means that the next client starts the
  // service. Without one, a start that does not end, or fails again and again, is the reason.
  bool const isStarting = unit["ActiveState"] == "activating";
  if (isStarting && findings.HasProblem("question")) {
    findings.AddProblem(check, CheckState::Failed, "unit-not-ready", Describe(serviceUnit, unit),
                        facts);
  } else {
    findings.AddOk(check, Describe(serviceUnit, unit), facts);
  }
  return findings;
}
