#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <string_view>

#include "base/loop/thread_linux.h"
#include "base/shared.h"
#include "base/unique_fd.h"
#include "net/socket_linux.h"

// A connected pair: a socket on `loop`, or a file, and the plain descriptor of its peer.
template <typename Descriptor = Net::SocketLinux>
Base::Shared<Descriptor> MakePair(Base::Shared<Base::ThreadLinux> const& loop, int type,
                                  Base::UniqueFd& peer) {
  std::array<int, 2> ends{};
  EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()), 0);
  peer.Reset(ends[1]);
  return Base::MakeShared<Descriptor>(Base::UniqueFd(ends[0]), loop);
}

inline void Send(Base::UniqueFd const& peer, std::string_view text) {
  ASSERT_EQ(send(peer.Get(), text.data(), text.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(text.size()));
}

// Receives once.
inline std::string Receive(Base::UniqueFd const& peer) {
  std::string text(4096, '\0');
  ssize_t const length = recv(peer.Get(), text.data(), text.size(), 0);
  text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return text;
}
