#pragma once

#include "base/loop/thread_linux.h"

// A socket-activated daemon leaves when no client has been heard of for "activated-period" seconds.

// Posts the first check to `mainThread`, for after one period. Called once, before the loop runs.
// Throws Base::ExceptionPosix.
void StartIdleShutdown(Base::ThreadLinux& mainThread);

// Stops the loop that it runs on when no client has been heard of for the period; else posts itself
// there for when that may be so.
void CheckIdleShutdown();
