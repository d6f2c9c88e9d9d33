#pragma once

namespace Trace {

// Takes the fault signals for the trace log, once per process, from whichever thread first
// configures the log. No signal is taken yet: faults have their default action.
void InstallCrashHandler();

}  // namespace Trace
