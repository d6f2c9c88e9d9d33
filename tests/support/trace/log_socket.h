#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "tests/support/base/child.h"

// A socket that stands in the place of /dev/log for a child with a mount namespace of its own.
class LogSocket {
 public:
  static constexpr int noNamespace = 77;  // exit status of `MountInChild` where there is none

  LogSocket() : _fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (_directory.path / "log").string().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(_fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }

  // Mounts the socket's folder as /dev.
  void MountInChild() const {
    bool const isMounted = unshare(CLONE_NEWNS | (geteuid() == 0 ? 0 : CLONE_NEWUSER)) == 0 &&
                           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                           mount(_directory.path.c_str(), "/dev", nullptr, MS_BIND, nullptr) == 0;
    if (!isMounted) _exit(noNamespace);
  }

  // The next datagram; empty when there is none. `flags` without MSG_DONTWAIT waits for one.
  std::string Receive(int flags = MSG_DONTWAIT) const {
    std::array<char, 2048> datagram{};
    ssize_t const length = recv(_fd.Get(), datagram.data(), datagram.size(), flags);
    return length == -1 ? "" : std::string(datagram.data(), static_cast<std::size_t>(length));
  }

  std::vector<std::string> ReceiveAll() const {
    std::vector<std::string> datagrams;
    while (!datagrams.emplace_back(Receive()).empty()) continue;
    datagrams.pop_back();
    return datagrams;
  }

 private:
  TemporaryDirectory const _directory;
  Base::UniqueFd const _fd;
};
