#pragma once

#include <sys/types.h>

#include "base/buffer.h"
#include "base/unique_fd.h"
#include "net/address.h"

// The system calls of `SocketLinux`. A result carries the errno of its call, which the next call
// would overwrite. What throws does so as Base::ExceptionPosix, after an ERROR line.

namespace Net {

struct Sent {
  ssize_t length;  // -1 on failure
  int error;
};

struct Received {
  ssize_t length;  // -1 on failure
  int error;
  bool isTruncated;  // the record was longer than the buffer
};

struct Accepted {
  Base::UniqueFd fd;  // empty on failure
  int error;
  Address address;  // the peer's, of which the record of 16 bytes holds the beginning
};

// A new socket, non-blocking and close-on-exec. Throws.
Base::UniqueFd OpenSocket(int domain, int type, int protocol);

// Returns the flags from before. Throws.
int MakeNonBlocking(Base::UniqueFd const& fd);

Sent Send(Base::UniqueFd const& fd, Base::ByteBuffer const& data);

// The flags with which `Receive` learns that a record was truncated; see recv(2). 0 for a socket
// without records: a TCP socket would discard bytes.
int GetReceiveFlags(Base::UniqueFd const& fd);

// The kernel closes descriptors that the peer sends along.
Received Receive(Base::UniqueFd const& fd, Base::ByteBuffer const& data, int flags);

Accepted Accept(Base::UniqueFd const& listener);

}  // namespace Net
