#include "base/loop/thread_linux.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>

#include <memory>
#include <new>
#include <thread>

#include "base/exception.h"
#include "base/loop/step_budget.h"
#include "tests/support/base/loop/loop_fixture.h"

namespace {

// How many of the next allocations on this thread fail.
thread_local int failingAllocations = 0;

}  // namespace

// Out of line: inlined, GCC would see free(3) of what `operator new` returned.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (failingAllocations > 0) {
    --failingAllocations;
    throw std::bad_alloc();
  }
  return malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  free(memory);
}

namespace {

class ThreadLinuxTest : public LoopTest {
 protected:
  void Monitor(pid_t pid) {
    loop->MonitorChildProcess(pid, Base::MakeCallback([this](int child, int status) {
                                events.Add(std::to_string(child) + ":" + std::to_string(status));
                              }));
  }
};

TEST_F(ThreadLinuxTest, WatchesReportUntilTheyAreRemoved) {
  Base::UniqueFd const fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  OnLoop([&] {
    loop->AddWatch(fd.Get(), EPOLLOUT, Base::MakeCallback([this](int watched, int bits) {
                     events.Add(std::to_string(bits));
                     loop->UpdateWatch(watched, 0);
                   }));
  });
  EXPECT_EQ(events.Take(), std::to_string(EPOLLOUT) + ";");
  AwaitRounds(2);  // the kernel knows that the watch has no events
  OnLoop([&] {
    loop->UpdateWatch(fd.Get(), EPOLLOUT);
    loop->UpdateWatch(fd.Get(), 0);
    loop->UpdateWatch(fd.Get(), EPOLLOUT);
  });
  EXPECT_EQ(events.Take(), std::to_string(EPOLLOUT) + ";");
  AwaitRounds(2);
  EXPECT_EQ(events.Take(0), "") << "the callback has removed the events";
  OnLoop([&] {
    loop->RemoveWatch(fd.Get());
    loop->RemoveWatch(fd.Get());
    EXPECT_THROW(loop->UpdateWatch(fd.Get(), EPOLLOUT), Base::ExceptionPosix);
    EXPECT_THROW(loop->AddWatch(-1, EPOLLIN, Base::MakeCallback([](int, int) {})),
                 Base::ExceptionPosix);
  });
  EXPECT_EQ(ErrorOf([&] { loop->AddWatch(fd.Get(), EPOLLOUT, {}); }), "Invalid Callback");
  EXPECT_EQ(ErrorOf([&] { loop->MonitorChildProcess(1, {}); }), "Invalid Callback");
  OnLoop([this] { Monitor(1); });
  EXPECT_EQ(events.Take(), "1:0;") << "no child of this process";
}

TEST_F(ThreadLinuxTest, TasksOfTheLoopAndOfOtherThreadsRunInTheOrderOfTheirPosts) {
  OnLoop([this] {
    loop->PostTask(Note("loop's first"));
    std::thread([this] { loop->PostTask(Note("other's")); }).join();
    loop->PostTask(Note("loop's second"));
  });
  EXPECT_EQ(events.Take(3), "loop's first;other's;loop's second;");
}

TEST_F(ThreadLinuxTest, AStoppedLoopRunsTheEventsOfItsLastWait) {
  int const fd = eventfd(1, EFD_CLOEXEC);
  OnLoop([&] {
    // The watch owns the descriptor: the loop still uses it after the event.
    loop->AddWatch(fd, EPOLLIN, Base::MakeCallback([this, owner = Base::UniqueFd(fd)](int, int) {
                     loop->PostTask(Note("completed"));
                     loop->PostToNextRound(Note("never"));
                   }));
    loop->Stop();
  });
  EXPECT_EQ(events.Take(), "completed;");
}

TEST_F(ThreadLinuxTest, AStepMayDestroyItsBudgetAndItsOwnHandle) {
  struct Owner {
    Base::StepBudget budget;
    Base::Task step;
  };
  std::unique_ptr<Owner> owner;
  std::weak_ptr<int> captured;
  OnLoop([&] { owner = std::make_unique<Owner>(Owner{Base::StepBudget(loop, 1), {}}); });
  AwaitRounds(1);  // a new budget is empty
  OnLoop([&] {
    auto value = std::make_shared<int>();
    captured = value;
    owner->step = Base::MakeCallback([this, &owner, &captured, value = std::move(value)] {
      auto& log = events;
      auto& weak = captured;
      owner.reset();
      log.Add(weak.expired() ? "destroyed" : "held");
    });
    owner->budget.Run(owner->step);
  });
  EXPECT_EQ(events.Take(0), "held;");
  EXPECT_TRUE(captured.expired());
}

// Each allocation that fails is the loop's own, outside the tasks.
TEST_F(ThreadLinuxTest, ALoopWithoutMemoryLosesNeitherTasksNorChildren) {
  OnLoop([this] {
    for (int i = 0; i < 1000; ++i) loop->PostToNextRound(Note("task"));
    failingAllocations = 1;
  });
  EXPECT_EQ(events.Take(1000).size(), 1000 * std::string("task;").size());
  pid_t const child = fork();
  if (child == 0) pause();
  OnLoop([&] {
    Monitor(child);
    kill(child, SIGKILL);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    failingAllocations = 1;
  });
  AwaitRounds(3);
  EXPECT_EQ(events.Take(), std::to_string(child) + ":0;");
}

}  // namespace
