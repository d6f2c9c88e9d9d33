#pragma once

// A deadline for the end of the process. Whatever hangs, a sensor that waits for a dead file system
// or a log that nobody reads, the process is gone within 2 seconds of its first termination signal.

// Creates the timer. Called once, before the other two. Throws Base::ExceptionPosix.
void PrepareEndDeadline();

// Starts the deadline; a second call does nothing. When it passes, the process writes the WARNING
// line "Ended without waiting" with the field "for" and ends at once, with exit status 0. May be
// called in a signal handler.
void StartEndDeadline() noexcept;

// Names what the end waits for from now on, for that line. `name` must be a literal.
void SetEndStage(char const* name) noexcept;
