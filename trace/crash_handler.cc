#include "trace/crash_handler.h"

namespace Trace {

void InstallCrashHandler() {}

}  // namespace Trace
