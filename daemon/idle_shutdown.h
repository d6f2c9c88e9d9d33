#pragma once

#include <chrono>

// How long a socket-activated daemon stays without a client: the setting "activated-period".
std::chrono::seconds GetActivatedPeriod();

// Stops the loop that it runs on when no client has been heard of for the activated period; else
// posts itself there for when that may be so.
void CheckIdleShutdown();
