#pragma once

// The daemon from its start to its end. On the process's first thread, once.

// Runs the daemon with the settings of the argument store: takes or binds the listening socket,
// serves connections, and returns after the shutdown, which SIGTERM or idleness causes; at once
// where systemd has passed no socket. Throws Base::Exception when the daemon cannot start.
void RunDaemon();

// Releases what a failed start has left. No thread may outlive `main`.
void AbandonStart();
