#pragma once

#include "client/doctor/findings.h"

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

// sensor_checks.cc
Findings CheckPlatform(Findings findings);
Findings CheckDmidecode(Findings findings);
Findings CheckSerialNumber(Findings findings);
Findings CheckTrustStore(Findings findings);
Findings CheckOpenssl(Findings findings);

// Whether the kernel shows the firmware's tables, from which dmidecode(8) reads; sensor_checks.cc.
bool HasFirmwareTables();
