#pragma once

namespace Trace {

// Gives the calling thread an alternate signal stack (sigaltstack(2)) for the crash handler, until
// the thread ends; does nothing when the thread has one already. Each thread that runs a loop or
// tasks calls it. Without it, an overflow of the thread's stack ends the process without a report;
// other crashes are reported all the same. It costs address space, and memory once a crash uses it.
void EnsureCrashStack() noexcept;

}  // namespace Trace
