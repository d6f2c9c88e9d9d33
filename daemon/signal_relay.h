#pragma once

#include "base/callback.h"
#include "base/loop/thread_linux.h"

// Signals, and their way to a loop.

// Blocks SIGTERM on the calling thread and on the threads that it starts later. Called first thing
// in `main`.
void BlockTermination();

// Makes a write to a peer that is gone fail with EPIPE instead of ending the process. It sets a
// handler and not SIG_IGN, which the programs that this process runs would inherit.
void SurviveBrokenPipes();

// Handles SIGTERM: the handler cancels the shell commands (process/shell_command.h) and passes the
// signal's number to `loop`, which calls `onSignal` with it, as a task, once for each signal.
// Called once, on the thread that will run the loop, before the loop runs. Throws
// Base::ExceptionPosix.
void RelayTermination(Base::ThreadLinux& loop, Base::Callback<int> onSignal);

// Unblocks SIGTERM on the calling thread. A SIGTERM that came while it was blocked is delivered
// now.
void UnblockTermination();
