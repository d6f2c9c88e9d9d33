#pragma once

#include "base/callback.h"
#include "base/loop/thread_linux.h"

// Signals, and how they reach a loop.

// Holds SIGTERM back on the calling thread and on those that it starts later. First thing in
// `main`.
void BlockTermination();

// Makes a write to a peer that is gone fail with EPIPE instead of ending the process. A handler and
// not SIG_IGN, which the programs that this process runs would inherit.
void SurviveBrokenPipes();

// Takes SIGTERM: the handler cancels the shell commands (process/shell_command.h) and hands the
// number to `loop`, which calls `onSignal` with it, as a task, once for each signal. Called once,
// from the thread that will run the loop, before it does. Throws Base::ExceptionPosix.
void RelayTermination(Base::ThreadLinux& loop, Base::Callback<int> onSignal);

// Lets SIGTERM through to the calling thread, also one that was held back.
void UnblockTermination();
