#pragma once

#include <chrono>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "client/doctor/check.h"
#include "net/address.h"

// Finds out why requests fail: looks at the socket, the service, the commands of the sensors, the
// trust store and the trace, and asks the daemon a question. Changes nothing, but its question
// starts a daemon that systemd activates.

struct DoctorOptions {
  Net::Address address;  // as the command line selects it
  // For each check, and for the question to the daemon.
  std::chrono::seconds timeout{30};
  bool json = false;     // `RunDoctor` prints JSON
  bool compact = false;  // on one line
};

// Called on the calling thread: when a check begins and about ten times a second while it runs,
// with what is being checked, such as "the socket".
using DoctorProgress = std::function<void(std::string_view what)>;

// Runs every check, in a fixed order. Never throws for a fault of the machine. The serial number
// and the certificates of the machine are in no result. A check that is late is abandoned, so the
// program must end by `FinishProgram` (client/deadline.h).
std::vector<CheckResult> RunChecks(DoctorOptions const& options,
                                   DoctorProgress const& onProgress = {});

// 0 when no check found anything, 1 after a warning, 2 after a failure. A check that could not be
// made does not count.
int GetExitStatus(std::vector<CheckResult> const& results);

// The object of docs/doctor.schema.json.
nlohmann::json ToJson(DoctorOptions const& options, std::vector<CheckResult> const& results);

// For people: a line for each check, and its advice on a line below. Control characters are
// escaped. `isColoured`: marks in colour instead of words for the states.
std::string ToText(std::vector<CheckResult> const& results, bool isColoured);

// The command `ktclientctl doctor`: runs the checks and prints their results; colours only to a
// terminal without NO_COLOR, and a progress line on standard error only if that is a terminal.
// Returns the exit status: that of `GetExitStatus`; 3 when standard output cannot be written.
int RunDoctor(DoctorOptions const& options);
