#pragma once

#include <signal.h>

#include "base/callback.h"
#include "base/loop/thread_linux.h"

// Signals, and their way to a loop. SIGTERM, SIGINT and SIGHUP end the daemon in order: the
// termination signals.

// Handles the termination signals from now on, and keeps each for `RelayTermination`. The handler
// cancels the shell commands (process/shell_command.h) and starts the deadline of the end
// (daemon/end_deadline.h). A SIGHUP that is ignored stays ignored, for nohup(1). Gives SIGCHLD its
// default action: whoever started the daemon may have ignored it, and no exit of a child would be
// seen. Called early in `main`. Throws Base::ExceptionPosix.
void CatchTermination();

// Makes a write to a peer that is gone fail with EPIPE instead of ending the process. It sets a
// handler and not SIG_IGN, which the programs that this process runs would inherit.
void SurviveBrokenPipes();

// Passes the number of each termination signal, also of earlier ones, to `loop`, which calls
// `onSignal` with it, as a task. Called once, on the thread that will run the loop, before the loop
// runs. Throws Base::ExceptionPosix.
void RelayTermination(Base::ThreadLinux& loop, Base::Callback<int> onSignal);

// Blocks the termination signals on the calling thread while it exists. A thread that is started
// meanwhile never takes them, so they always interrupt the first thread.
class TerminationBlock {
 public:
  TerminationBlock();
  TerminationBlock(TerminationBlock const&) = delete;
  TerminationBlock& operator=(TerminationBlock const&) = delete;
  ~TerminationBlock();

 private:
  sigset_t _before;
};
