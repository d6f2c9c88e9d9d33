#pragma once

#include <chrono>

#include "base/shared.h"
#include "base/thread.h"

// How long a socket-activated daemon stays without a client: the setting "activated-period".
std::chrono::seconds GetActivatedPeriod();

// Stops `mainThread` when no client has been heard of for the activated period; else comes back when
// that may be so. Runs on that thread.
void CheckIdleShutdown(Base::Shared<Base::Thread> const& mainThread);
