#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "base/callback.h"
#include "base/shared.h"

// Things that happen on other threads, for the test to wait for.
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
    auto const isThere = [&] { return std::count(_events.begin(), _events.end(), ';') >= count; };
    if (!_changed.wait_for(lock, std::chrono::seconds(60), isThere)) {
      // What has not come yet may still come, to a test that has ended.
      std::cerr << "only \"" << _events << "\" came" << std::endl;
      std::abort();
    }
    return std::exchange(_events, {});
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  std::string _events;
};

// Whatever a test makes has to be gone at its end.
class LiveObjectsTest : public testing::Test {
 protected:
  void SetUp() override { _liveObjects = Base::Shareable::GetLiveObjectCount(); }

  void TearDown() override {
    // A thread that stopped itself may still be on its way out.
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (Base::Shareable::GetLiveObjectCount() != _liveObjects &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    EXPECT_EQ(Base::Shareable::GetLiveObjectCount(), _liveObjects)
        << "something keeps itself alive";
  }

  // A task that adds `event`.
  Base::Task Note(std::string event) {
    return Base::MakeCallback([this, event = std::move(event)] { events.Add(event); });
  }

  EventLog events;

 private:
  std::size_t _liveObjects = 0;
};
