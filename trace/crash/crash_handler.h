#pragma once

namespace Trace {

// Reports a crash. When SIGFPE, SIGSEGV, SIGILL, SIGBUS, SIGTRAP or SIGABRT hits a thread, the
// handler writes to each sink that is on one line about the signal, then one for each frame of that
// thread, innermost first:
//
//   ... FATAL    crash_handler(4211:4213) - Received fatal signal { signal:"SIGSEGV" code:1
//       address:0x10 thread:4213 }
//   ... FATAL    crash_handler(4211:4213) - Frame { index:0 address:0x55d0a6c3f2b1
//       file:"/usr/bin/ktclientd" offset:0x1c2b1 }
//
// `address` is the address of a fault, 0 for a signal that was sent; `code` is the siginfo_t's
// (sigaction(2)). addr2line(1) turns a file's offset into a line of source. Then the signal takes
// its default action: exit status and core are those of a process without a handler.
//
// The handler replaces only the default action. A handler that is already there, such as a
// sanitizer's, stays, and an ignored signal stays ignored. A child that has called exec(2) has the
// default actions again; a child that has only been forked reports its own crashes, to the sinks it
// has inherited.
//
// When two threads crash, only the first one reports. A report takes at most 5 s, then the process
// ends; for that, a crash changes the action of SIGALRM.

// Installs the handler. Only the first call in a process has an effect. Threads: any.
void InstallCrashHandler();

}  // namespace Trace
