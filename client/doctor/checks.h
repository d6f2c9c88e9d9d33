#pragma once

#include <string>
#include <vector>

#include "client/doctor/findings.h"
#include "support/error.h"

// The checks, each in the file that its comment names. A check takes what earlier checks found and
// adds exactly one result, with the name in its row of the table in doctor.cc. It may throw; the
// table's owner makes a result of the exception. It may block: it runs as a step of
// client/deadline.h.

// socket_checks.cc
Findings CheckSocket(Findings findings);
Findings CheckConnection(Findings findings);
Findings CheckServer(Findings findings);
Findings CheckQuestion(Findings findings);

// unit_checks.cc
Findings CheckSocketUnit(Findings findings);
Findings CheckServiceUnit(Findings findings);

// daemon_checks.cc. `FindDaemon` adds no result: it looks for the daemon's process and its
// settings.
Findings FindDaemon(Findings findings);
Findings CheckVersion(Findings findings);
Findings CheckDescriptors(Findings findings);
Findings CheckTraceFile(Findings findings);

// Does what of the above is necessary to know the daemon's process and its settings; adds the
// failures of checks to `errors`.
Findings FindService(DoctorOptions const& options, std::vector<Support::Error>& errors);

// The files of EnvironmentFile= of the service; the packaged one when none is known.
std::vector<std::string> GetEnvironmentFiles(Findings const& findings);

// Where the daemon writes its trace, below `Findings::root`. With `isNewAtEachStart` the names of
// the files end in "_ktclientd.log", after the time of the start.
struct TracePlace {
  std::string path;
  std::string folder;
  bool isNewAtEachStart;
};
TracePlace GetTracePlace(Findings const& findings);

// sensor_checks.cc
Findings CheckPlatform(Findings findings);
Findings CheckDmidecode(Findings findings);
Findings CheckSerialNumber(Findings findings);
Findings CheckTrustStore(Findings findings);
Findings CheckOpenssl(Findings findings);

// Whether the kernel shows the firmware's tables, from which dmidecode(8) reads; sensor_checks.cc.
bool HasFirmwareTables();

// The folder of the management certificates, below `Findings::root`.
std::string GetTrustStore(Findings const& findings);

// The names of the management certificates in a folder, in order, as the daemon selects them. Sets
// `error`, an errno.
std::vector<std::string> ListCertificates(std::string const& folder, int& error);
