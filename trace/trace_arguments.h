#pragma once

namespace Trace {

// Logs every entry of the argument store at VERBOSE, in order, a line each, as module "arguments".
// It stands with the log because the store, from which the log is configured, knows nothing of it.
void TraceArguments();

}  // namespace Trace
