#pragma once

#include <signal.h>

// What the crash handler writes, and where to.

namespace Trace {

class Console;
class TraceFile;

// Where crashes are reported from now on; without it nowhere. Null the sinks that are off; they are
// never destroyed. Syslog is a datagram socket at /dev/log; one that is a stream gets nothing.
void SetCrashSinks(Console* console, TraceFile* file, bool useSyslog);

// Fetches what a report needs of the system and cannot ask for in a signal handler.
void PrepareCrashReport();

// Writes the report, its lines in the order in which they get harder to know. `context` is the
// signal handler's third argument. For signal handlers: allocates nothing, locks nothing.
void ReportCrash(siginfo_t const& info, void* context) noexcept;

}  // namespace Trace
