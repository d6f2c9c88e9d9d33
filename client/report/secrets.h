#pragma once

#include <vector>

#include "client/report/collect.h"

// The steps that find what identifies this machine and its users: `ReportFindings::secrets` and
// `unknown`. The values of a step that fails or is late are unknown, too. The sources that may hang
// or have the most values come last.
std::vector<ReportStep> GetSecretSteps(ReportContext const& context);
