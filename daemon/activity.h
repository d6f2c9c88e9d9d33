#pragma once

#include <chrono>

// The time of the last activity of a client: an accepted connection or a completed read. Any
// thread.

// Sets the time to now. Before the first call it is the start of the process.
void StampLastRead();

std::chrono::system_clock::time_point GetLastReadTime();
