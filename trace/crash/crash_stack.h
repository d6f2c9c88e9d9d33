#pragma once

namespace Trace {

// Gives the calling thread a stack of its own for the crash handler, until the thread ends; nothing
// where it has one. Called by each thread that runs a loop or tasks: of a thread without one, a
// crash is reported as well, but not an overflow of its stack, which then has its default action in
// silence. Costs address space, and memory only where a crash has used it.
void EnsureCrashStack() noexcept;

}  // namespace Trace
