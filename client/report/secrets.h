#pragma once

#include <vector>

#include "client/report/collect.h"

// The steps that find what identifies this machine and its users: `Findings::secrets`. A gap means
// that the values of one source are unknown, so they may remain in the report.
std::vector<Step> GetSecretSteps(Net::Address const& address);
