#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "base/buffer.h"
#include "base/loop/run_and_wait.h"
#include "base/loop/thread_linux.h"
#include "base/shared.h"
#include "base/stream.h"
#include "tests/support/base/error_text.h"
#include "tests/support/base/live_objects_test.h"

// A running loop.
class LoopTest : public LiveObjectsTest {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    LiveObjectsTest::SetUp();
    loop = Base::MakeShared<Base::ThreadLinux>();
    loop->Start();
  }

  void TearDown() override {
    loop->Stop();
    loop.Reset();
    LiveObjectsTest::TearDown();
  }

  // Runs `function` on the loop's thread and waits for it.
  template <typename Function>
  void OnLoop(Function function) {
    Base::RunAndWait(*loop, std::move(function));
  }

  // Waits until the loop has polled so often. Not by scheduled tasks: one that is overdue when the
  // loop comes to wait does not end the wait.
  void AwaitRounds(std::uint64_t count) {
    auto const getRound = [this] {
      std::uint64_t round = 0;
      OnLoop([&] { round = loop->GetRound(); });
      return round;
    };
    std::uint64_t const end = getRound() + count;
    while (getRound() < end) {
    }
  }

  Base::ReadCallback<Base::ByteBuffer> NoteRead() {
    return Base::MakeCallback(
        [this](Base::Status const& status, Base::ByteBuffer data, bool complete) {
          events.Add("read " + StatusText(status) + " " + Text(data) + (complete ? " end" : ""));
        });
  }

  Base::WriteCallback<Base::ByteBuffer> NoteWrite() {
    return Base::MakeCallback([this](Base::Status const& status, Base::ByteBuffer data) {
      events.Add("written " + StatusText(status) + " " + std::to_string(data.GetLength()));
    });
  }

  // What `operation` throws on the loop's thread, or "none".
  std::string ErrorOf(std::function<void()> operation) {
    std::string text;
    OnLoop([&] { text = ::ErrorOf(operation); });
    return text;
  }

  static std::string Text(Base::ByteBuffer const& buffer) {
    return {buffer.GetSpan().begin(), buffer.GetSpan().end()};
  }

  static std::string StatusText(Base::Status const& status) {
    return status ? status.Get().what() : "ok";
  }

  Base::Shared<Base::ThreadLinux> loop;
};
