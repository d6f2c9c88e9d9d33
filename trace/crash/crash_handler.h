#pragma once

namespace Trace {

// The last words of a process. Where SIGFPE, SIGSEGV, SIGILL, SIGBUS or SIGABRT hits it, each sink
// that is on gets a line, and then one for each frame of the thread that was hit, the innermost
// first:
//
//   ... FATAL    crash_handler(4211:4213) - Received fatal signal { signal:"SIGSEGV" code:1
//       address:0x10 thread:4213 }
//   ... FATAL    crash_handler(4211:4213) - Frame { index:0 address:0x55d0a6c3f2b1
//       file:"/usr/bin/ktclientd" offset:0x1c2b1 }
//
// `address` is what the kernel tells of a fault, 0 for a signal that was sent; `code` is siginfo's
// (sigaction(2)); addr2line(1) makes a line of the source of a frame's offset. Then the signal has
// its default action: exit status and core are those of a process without a handler.
//
// Only a signal that has its default action is taken: a handler that is already there, such as a
// sanitizer's, and a signal that is ignored stay. exec(2) gives a child the default actions back;
// a forked child that goes on without it reports its own crashes, to the sinks it has inherited.
//
// It is for all that may be broken by then. It takes no lock, allocates nothing, calls only what a
// signal handler may, but for the unwinder, which with glibc 2.35 and GCC 12 or later takes no lock
// either; and it runs on the stack of `EnsureCrashStack`. When two threads crash, the first one
// reports and the other waits; when the report itself crashes, it ends there. It also ends, and the
// process with it, where a sink has held it up for 5 s: what SIGALRM does is changed for that.

// Takes the signals, once a process; a second call does nothing. Threads: any.
void InstallCrashHandler();

}  // namespace Trace
