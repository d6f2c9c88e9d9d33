#pragma once

#include <chrono>

// What keeps the daemon from its idle shutdown: the time of the last activity, and work under way.
//
// Threads: any. Changes are visible to other threads soon, not at once.

// The last accepted connection, completed read, or end of work, on two clocks: the trace shows the
// system's, decisions go by the monotonic one, which no administrator sets.
struct ActivityTime {
  std::chrono::system_clock::time_point system;
  std::chrono::steady_clock::time_point monotonic;
};

// Sets the time to now. Before the first call it is the start of the process.
void StampActivity();

ActivityTime GetLastActivity();

// Work is a request that waits or runs, a packet that has begun, or a response that is not sent.
// Each piece of work begins once and ends once; its end is activity.
void BeginWork();
void EndWork();

bool IsAtWork();
