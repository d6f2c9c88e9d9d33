#pragma once

#include <signal.h>

// The lines that the crash handler writes, and their sinks.

namespace Trace {

class Console;
class TraceFile;

// Sets the sinks of later reports, null for a sink that is off. Before this call there is no sink.
// The caller never destroys them. Syslog must be a datagram socket at /dev/log: a stream socket
// there gets nothing.
void SetCrashSinks(Console* console, TraceFile* file, bool useSyslog);

// Loads the unwinder and looks up the program's path, which a signal handler cannot do.
void PrepareCrashReport();

// Writes the report, most reliable facts first: a later line may crash. `context` is the signal
// handler's third argument. For signal handlers: takes no lock, allocates nothing.
void ReportCrash(siginfo_t const& info, void* context) noexcept;

}  // namespace Trace
