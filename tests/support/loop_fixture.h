#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "base/io_thread.h"
#include "base/run_and_wait.h"
#include "base/shared.h"
#include "base/thread_linux.h"
#include "base/unique_fd.h"
#include "net/socket_linux.h"

// Things that happen on the loop, for the test to wait for.
class EventLog {
 public:
  void Add(std::string event) {
    std::lock_guard const lock(_mutex);
    _events += std::move(event) + ";";
    _changed.notify_all();
  }

  // Waits until there are `count` events more than the ones taken before, and takes all: "a;b;".
  std::string Take(int count = 1) {
    std::unique_lock lock(_mutex);
    _changed.wait_for(lock, std::chrono::seconds(60),
                      [&] { return std::count(_events.begin(), _events.end(), ';') >= count; });
    return std::exchange(_events, {});
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  std::string _events;
};

// A running loop and connected sockets. Everything has to be gone at the end.
class LoopTest : public testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    _liveObjects = Base::Shareable::GetLiveObjectCount();
    loop = MakeLoop();
    loop->Start();
  }

  void TearDown() override {
    loop->Stop();
    loop.Reset();
    // A thread that stopped itself may still be on its way out.
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (Base::Shareable::GetLiveObjectCount() != _liveObjects &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    EXPECT_EQ(Base::Shareable::GetLiveObjectCount(), _liveObjects)
        << "something keeps itself alive";
  }

  virtual Base::Shared<Base::ThreadLinux> MakeLoop() {
    return Base::MakeShared<Base::ThreadLinux>();
  }

  // Runs `function` on the loop's thread and waits for it.
  template <typename Function>
  void OnLoop(Function function) {
    Base::RunAndWait(*loop, std::move(function));
  }

  // A connected pair: a socket on the loop, and the plain descriptor of its peer.
  Base::Shared<Net::SocketLinux> MakePair(int type, Base::UniqueFd& peer) {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()), 0);
    peer.Reset(ends[1]);
    return Base::MakeShared<Net::SocketLinux>(Base::UniqueFd(ends[0]), loop);
  }

  static std::string Text(Base::ByteBuffer const& buffer) {
    return {buffer.GetSpan().begin(), buffer.GetSpan().end()};
  }

  static void Send(Base::UniqueFd const& peer, std::string_view text) {
    ASSERT_EQ(send(peer.Get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }

  // Receives once.
  static std::string Receive(Base::UniqueFd const& peer) {
    std::string text(4096, '\0');
    ssize_t const length = recv(peer.Get(), text.data(), text.size(), 0);
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
  }

  static std::string StatusText(Base::Status const& status) {
    return status ? status.Get().what() : "ok";
  }

  Base::Shared<Base::ThreadLinux> loop;
  EventLog events;

 private:
  std::size_t _liveObjects = 0;
};

// The same on the process-wide IO thread, for what posts to it.
class IOThreadTest : public LoopTest {
 protected:
  void SetUp() override {
    Base::GetIOThread();  // stays, and is not the test's
    LoopTest::SetUp();
  }

  Base::Shared<Base::ThreadLinux> MakeLoop() override { return Base::GetIOThread(); }
};
