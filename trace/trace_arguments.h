#pragma once

namespace Trace {

// Logs every entry of the argument store at VERBOSE, in order, one line each, as module
// "arguments". It is part of the log because the log reads its settings from the store: the store
// must not use the log.
void TraceArguments();

}  // namespace Trace
