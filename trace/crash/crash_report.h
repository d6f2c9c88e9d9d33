#pragma once

#include <signal.h>

// The lines that the crash handler writes.

namespace Trace {

// Loads the unwinder and looks up the program's path, which a signal handler cannot do.
void PrepareCrashReport();

// Writes the report, most reliable facts first: a later line may crash. `context` is the signal
// handler's third argument. For signal handlers: takes no lock, allocates nothing.
void ReportCrash(siginfo_t const& info, void* context) noexcept;

}  // namespace Trace
