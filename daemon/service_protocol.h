#pragma once

// The daemon's side of the two protocols of a service manager, for builds without libsystemd: the
// variables LISTEN_PID and LISTEN_FDS, see sd_listen_fds(3), and the datagrams to NOTIFY_SOCKET,
// see sd_notify(3). Both functions leave the environment as it is. On the first thread, before
// there are others, and during the end: nobody changes the environment.
namespace ServiceProtocol {

// The number of sockets that are passed to this process, from descriptor 3 on, and now
// close-on-exec. 0 when none are announced, or to another process. On failure a negative errno:
// -EINVAL and -ERANGE for variables that are not such numbers, a number of 0 included; -EBADF for a
// descriptor that is announced and not open.
int ListenFds();

// Sends `state`, such as "READY=1". Returns 1 when it is sent; 0 when nobody has asked for it; on
// failure a negative errno: -EINVAL for an address that is neither a path nor a name after "@", or
// for a name that is too long; -ENAMETOOLONG for such a path.
int Notify(char const* state);

}  // namespace ServiceProtocol
