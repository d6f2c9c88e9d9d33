#pragma once

#include "base/loop/thread_linux.h"

// A socket-activated daemon ends when no connection and no packet has come for "activated-period"
// seconds.

// Schedules the first check on `mainThread`, one period from now. Called once, before the loop
// runs. Throws Base::ExceptionPosix.
void StartIdleShutdown(Base::ThreadLinux& mainThread);

// Stops the loop that it runs on when the period has passed without activity; otherwise schedules
// itself for the time when the period may have passed.
void CheckIdleShutdown();
