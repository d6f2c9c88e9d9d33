#pragma once

// The daemon from its start to its end. On the process's first thread, once.

// The listening sockets that a service manager has passed to this process, see sd_listen_fds(3).
struct PassedSockets {
  int count = 0;
  int error = 0;  // an errno: they are announced, but not there
};

// Takes note of the passed sockets. Called before this process opens any descriptor: a descriptor
// of its own would pass for one that is announced and missing. Logs nothing.
PassedSockets TakePassedSockets();

// Runs the daemon with the settings of the argument store: takes or binds the listening socket,
// serves connections, and returns after the shutdown, which a signal or idleness causes; at once
// where it is to use a passed socket and there is none. Throws Base::Exception when the daemon
// cannot start.
void RunDaemon(PassedSockets const& passed);

// Releases what a failed start has left. No thread may outlive `main`.
void AbandonStart();
