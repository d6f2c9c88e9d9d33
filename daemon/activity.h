#pragma once

#include <chrono>

// When a client was last heard of: an accepted connection or a completed read. Any thread.

// Now; the process's start counts as well.
void StampLastRead();

std::chrono::system_clock::time_point GetLastReadTime();
