#pragma once

#include <string_view>

#include "trace/fixed_text.h"
#include "trace/trace.h"

// The sinks as a signal handler uses them: without a lock, without allocating.

namespace Trace {

class Console;
class Syslog;
class TraceFile;

using SignalSafeText = FixedText<1024>;

// Sets the sinks of later lines, null for a sink that is off. Before this call there is no sink.
// The caller never destroys them.
void SetSignalSafeSinks(Console* console, TraceFile* file, Syslog* syslog);

// Appends the header of the calling thread's next line.
void StartSignalSafeLine(SignalSafeText& text, std::string_view module, TraceLevel level) noexcept;

// Writes the line `text`. Waits for the console's reader for `patienceMs` at most.
void WriteToSignalSafeSinks(SignalSafeText& text, TraceLevel level, int patienceMs) noexcept;

}  // namespace Trace
