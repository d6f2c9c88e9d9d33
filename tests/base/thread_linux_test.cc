#include "base/thread_linux.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>

#include <memory>
#include <thread>
#include <vector>

#include "base/exception.h"
#include "base/io_thread.h"
#include "base/thread_pool.h"
#include "tests/support/child.h"
#include "tests/support/loop_fixture.h"

namespace {

class ThreadLinuxTest : public LoopTest {
 protected:
  Base::Task Note(std::string event) {
    return Base::MakeCallback([this, event = std::move(event)] { events.Add(event); });
  }

  pid_t Fork(int exitStatus) {
    pid_t const pid = fork();
    if (pid == 0) {
      if (exitStatus < 0) raise(SIGKILL);
      _exit(exitStatus);
    }
    return pid;
  }

  void Monitor(pid_t pid) {
    loop->MonitorChildProcess(pid, Base::MakeCallback([this](int child, int status) {
                                events.Add(std::to_string(child) + ":" + std::to_string(status));
                              }));
  }
};

TEST_F(ThreadLinuxTest, DueScheduledTasksComeBeforePostedOnes) {
  OnLoop([this] {
    loop->PostTask(Note("posted"));
    loop->PostTask(Base::MakeCallback([this] { loop->PostTask(Note("same drain")); }));
    loop->PostScheduledTask(0, Note("next round"));
    loop->PostScheduledTask(-5, Note("overdue"));
    loop->PostScheduledTask(3'000'000'000'000'000, Note("never"));
  });
  EXPECT_EQ(events.Take(4), "posted;same drain;overdue;next round;");
}

TEST_F(ThreadLinuxTest, ScheduledTasksOfOneTimeKeepTheirOrder) {
  // All due when the loop looks next: it may wait for ever for one that comes due just before.
  OnLoop([this] {
    for (int i = 0; i < 50; ++i) loop->PostScheduledTask(0, Note(std::to_string(i)));
  });
  std::string expected;
  for (int i = 0; i < 50; ++i) expected += std::to_string(i) + ";";
  EXPECT_EQ(events.Take(50), expected);
}

TEST_F(ThreadLinuxTest, AnExceptionEndsItsTaskOnly) {
  loop->PostTask(Base::MakeCallback([] { throw Base::Exception("thrown"); }));
  loop->PostTask(Base::MakeCallback([] { throw 1; }));
  loop->PostTask(Note("next"));
  EXPECT_EQ(events.Take(), "next;");
  EXPECT_THROW(OnLoop([] { throw Base::Exception("to the caller"); }), Base::Exception);
}

TEST_F(ThreadLinuxTest, WatchesReportUntilTheyAreRemoved) {
  Base::UniqueFd const fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  OnLoop([&] {
    loop->AddWatch(fd.Get(), EPOLLOUT, Base::MakeCallback([this](int watched, int bits) {
                     events.Add(std::to_string(bits));
                     loop->UpdateWatch(watched, 0);
                   }));
  });
  EXPECT_EQ(events.Take(), std::to_string(EPOLLOUT) + ";");
  OnLoop([&] {
    loop->RemoveWatch(fd.Get());
    loop->RemoveWatch(fd.Get());
    EXPECT_THROW(loop->UpdateWatch(fd.Get(), EPOLLOUT), Base::ExceptionPosix);
    EXPECT_THROW(loop->AddWatch(-1, EPOLLIN, {}), Base::ExceptionPosix);
  });
}

TEST_F(ThreadLinuxTest, ChildrenAreReportedHoweverTheyEnd) {
  pid_t const exits = Fork(3);
  pid_t const dies = Fork(-1);
  OnLoop([&] {
    Monitor(exits);
    Monitor(dies);
    Monitor(1);  // no child of ours
    // Children are looked at when the loop wakes.
    for (int i = 1; i <= 20; ++i) loop->PostScheduledTask(i * 50, Base::MakeCallback([] {}));
  });
  std::string const seen = events.Take(3);
  EXPECT_NE(seen.find(std::to_string(exits) + ":" + std::to_string(3 << 8)), std::string::npos);
  EXPECT_NE(seen.find(std::to_string(dies) + ":"), std::string::npos);
  EXPECT_NE(seen.find("1:0;"), std::string::npos);
}

TEST_F(ThreadLinuxTest, StopIsSafeInEveryState) {
  auto const never = Base::MakeShared<Base::ThreadLinux>();
  never->Stop();
  never->Stop();

  auto const inPlace = Base::MakeShared<Base::ThreadLinux>();
  inPlace->Stop();  // forgotten by Run
  inPlace->PostTask(Base::MakeCallback([&] {
    EXPECT_TRUE(inPlace->IsCurrentThread());
    EXPECT_TRUE(Base::Thread::GetCurrent() == Base::Shared<Base::Thread>(inPlace));
    inPlace->Stop();
  }));
  inPlace->Run();
  EXPECT_FALSE(inPlace->IsCurrentThread());
  EXPECT_FALSE(Base::Thread::GetCurrent());

  std::vector<std::thread> stoppers;
  never->Start();
  for (int i = 0; i < 4; ++i) stoppers.emplace_back([&] { never->Stop(); });
  for (std::thread& stopper : stoppers) stopper.join();
  never->Start();
  never->PostTask(Note("runs again"));
  EXPECT_EQ(events.Take(), "runs again;");
  Base::PostStop(never, [this] { events.Add("stopped by itself"); });
  EXPECT_EQ(events.Take(), "stopped by itself;");
}

TEST_F(ThreadLinuxTest, PostsFromManyThreadsArrive) {
  std::vector<std::thread> posters;
  for (int i = 0; i < 4; ++i) {
    posters.emplace_back([this] {
      for (int k = 0; k < 500; ++k) loop->PostTask(Note("x"));
    });
  }
  for (std::thread& poster : posters) poster.join();
  EXPECT_EQ(events.Take(2000).size(), 4000U);
}

// The fixture finds what is left alive.
TEST_F(ThreadLinuxTest, AnEndedLoopLetsGoOfWhatItHolds) {
  Base::UniqueFd const fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  OnLoop([&] {
    loop->AddWatch(fd.Get(), EPOLLIN, Base::MakeCallback([loop = loop](int, int) {}));
    loop->PostScheduledTask(1'000'000, Base::MakeCallback([loop = loop] {}));
    loop->MonitorChildProcess(Fork(0), Base::MakeCallback([loop = loop](int, int) {}));
  });
  loop->Stop();
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

TEST(ProcessThreadsTest, TheIOThreadIsOneAndDoesNotComeBack) {
  int const status = RunInChild([] {
    auto const ioThread = Base::GetIOThread();
    EXPECT_TRUE(ioThread == Base::GetIOThread());
    EXPECT_FALSE(Base::IsIOThread());
    Base::RunAndWait(*ioThread, [] { EXPECT_TRUE(Base::IsIOThread()); });
    Base::ShutdownThreadPools();
    Base::ShutdownThreadPools();
    EXPECT_THROW(Base::GetIOThread(), Base::Exception);
    EXPECT_FALSE(Base::IsIOThread());
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
