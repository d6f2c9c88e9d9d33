#pragma once

#include "base/callback.h"
#include "base/loop/thread_linux.h"

// A socket-activated daemon ends when it has been idle for "activated-period" seconds: no
// connection and no packet has come, and no work was under way.

// Checks on `mainThread` whether the period has passed, the first time after one period, and calls
// `onIdle` there, once, when it has. Called once, before the loop runs. Throws
// Base::ExceptionPosix.
void StartIdleShutdown(Base::ThreadLinux& mainThread, Base::Callback<> onIdle);
