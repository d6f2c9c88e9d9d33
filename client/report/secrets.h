#pragma once

#include <vector>

#include "client/report/collect.h"

// The steps that find what identifies this machine and its users: `ReportFindings::secrets`. A gap
// means that the values of one source are unknown, so they may remain in the report.
std::vector<ReportStep> GetSecretSteps(Net::Address const& address);
