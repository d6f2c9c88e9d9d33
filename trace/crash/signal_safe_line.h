#pragma once

#include <string_view>

#include "trace/trace.h"

namespace Trace {

// Writes one line with one quoted field to each sink that is on, unless the level is off:
//
//   ... WARNING  main(4211:4211) - Ended without waiting { what:"main thread" }
//
// For a signal handler that then ends the process, whatever its other threads do: the call takes no
// lock, allocates nothing and keeps errno. A line is cut after 1023 bytes. It waits for the readers
// of console and syslog for 100 ms each at most; only a trace file on a file system that hangs can
// hold it up longer. After the call, the process does not open its trace file again.
void WriteSignalSafeLine(std::string_view module, TraceLevel level, std::string_view message,
                         std::string_view key, std::string_view value) noexcept;

}  // namespace Trace
