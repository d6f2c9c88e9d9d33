#pragma once

#include "base/callback.h"
#include "base/loop/thread_linux.h"

// Signals, and the deadline of the end. SIGTERM, SIGINT and SIGHUP end the daemon in order: the
// termination signals. Whatever hangs then, a sensor that waits for a dead file system or a log
// that nobody reads, the process is gone within 2 seconds of the first one.

// Starts the signal thread, which alone takes the termination signals: it cancels the shell
// commands (process/shell_command.h), keeps each number for `RelayTermination`, and begins the
// deadline of the end. A SIGHUP that is ignored stays ignored, for nohup(1). Gives SIGCHLD its
// default action: with it ignored, as a parent may have left it, no exit of a child could be seen.
// Called once, before any other thread starts. Throws Base::ExceptionPosix.
void StartSignalThread();

// Makes a write to a peer that is gone fail with EPIPE instead of ending the process. It sets a
// handler and not SIG_IGN, which the programs that this process runs would inherit.
void SurviveBrokenPipes();

// Passes the number of each termination signal, also of earlier ones, to `loop`, which calls
// `onSignal` with it, as a task. Called once, on the thread that will run the loop, before the loop
// runs. Throws Base::ExceptionPosix.
void RelayTermination(Base::ThreadLinux& loop, Base::Callback<int> onSignal);

// Begins the deadline of the end, for an end that no signal has caused. When it passes, the process
// writes the WARNING line "Ended without waiting" with the field "for" and ends at once, with exit
// status 0.
void BeginEndDeadline() noexcept;

// Names what the end waits for from now on, for that line. `name` must be a literal.
void SetEndStage(char const* name) noexcept;
