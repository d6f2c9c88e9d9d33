#include "base/loop/task_runner.h"

#include <string>
#include <thread>
#include <vector>

#include "base/exception.h"
#include "base/glib/thread_linux_glib.h"
#include "base/glib/thread_pool_linux_glib.h"
#include "base/loop/run_and_wait.h"
#include "base/loop/thread_linux.h"
#include "base/loop/thread_pool.h"
#include "tests/support/base/error_text.h"
#include "tests/support/base/live_objects_test.h"

namespace {

template <typename Thread>
struct OfThread {
  OfThread() { runner->Start(); }
  void End() { runner->Stop(); }

  Base::Shared<Thread> runner = Base::MakeShared<Thread>();
};

// One worker, so that tasks end in the order in which they start.
template <bool isExclusive>
struct OfPool {
  OfPool() { thread->Start(); }
  void End() {
    runner->Close(false);
    thread->Stop();
  }

  Base::Shared<Base::ThreadLinuxGlib> thread = Base::MakeShared<Base::ThreadLinuxGlib>();
  Base::Shared<Base::ThreadPool> runner =
      Base::MakeShared<Base::ThreadPoolLinuxGlib>(thread->GetContext(), 1, isExclusive);
};

template <typename Executor>
class TaskRunnerTest : public LiveObjectsTest {};

using Executors = testing::Types<OfThread<Base::ThreadLinux>, OfThread<Base::ThreadLinuxGlib>,
                                 OfPool<false>, OfPool<true>>;
TYPED_TEST_SUITE(TaskRunnerTest, Executors);

// The fixture finds what is left alive.
TYPED_TEST(TaskRunnerTest, ScheduledTasksKeepTheirOrderUntilTheEndDiscardsThem) {
  TypeParam executor;
  std::string expected;
  for (int i = 0; i < 50; ++i) {
    executor.runner->PostScheduledTask(0, this->Note(std::to_string(i)));
    expected += std::to_string(i) + ";";
  }
  executor.runner->PostScheduledTask(
      3'000'000'000'000'000, Base::MakeCallback([runner = executor.runner] { FAIL() << "never"; }));
  EXPECT_EQ(this->events.Take(50), expected);
  executor.End();
}

TYPED_TEST(TaskRunnerTest, AnExceptionEndsItsTaskOnly) {
  TypeParam executor;
  auto const fail = Base::MakeCallback([] { throw Base::Exception("thrown"); });
  executor.runner->PostTask({});
  executor.runner->PostTask(fail);
  executor.runner->PostTask(Base::MakeCallback([] { throw 1; }));
  executor.runner->PostTask(this->Note("posted"));
  EXPECT_EQ(this->events.Take(), "posted;");
  executor.runner->PostScheduledTask(0, fail);
  executor.runner->PostScheduledTask(0, this->Note("scheduled"));
  EXPECT_EQ(this->events.Take(), "scheduled;");
  executor.End();
}

template <typename Thread>
class ThreadTest : public LiveObjectsTest {};

using Threads = testing::Types<Base::ThreadLinux, Base::ThreadLinuxGlib>;
TYPED_TEST_SUITE(ThreadTest, Threads);

TYPED_TEST(ThreadTest, DueScheduledTasksComeBeforePostedOnes) {
  auto const thread = Base::MakeShared<TypeParam>();
  thread->Start();
  Base::RunAndWait(*thread, [&] {
    thread->PostTask(this->Note("posted"));
    thread->PostTask(Base::MakeCallback([&] { thread->PostTask(this->Note("same drain")); }));
    thread->PostScheduledTask(0, this->Note("next round"));
    thread->PostScheduledTask(-60'000, this->Note("overdue"));
  });
  EXPECT_EQ(this->events.Take(4), "posted;same drain;overdue;next round;");
  EXPECT_THROW(Base::RunAndWait(*thread, [] { throw Base::Exception("here"); }), Base::Exception);
  thread->Stop();
  EXPECT_EQ(ErrorOf([&] { Base::RunAndWait(*thread, [] { FAIL() << "too late"; }); }),
            "Thread stopped");
  thread->Start();  // runs nothing of the caller that gave up
  Base::RunAndWait(*thread, [this] { this->events.Add("runs again"); });
  EXPECT_EQ(this->events.Take(), "runs again;");
  thread->Stop();
}

TYPED_TEST(ThreadTest, StopIsSafeInEveryState) {
  auto const started = Base::MakeShared<TypeParam>();
  started->Stop();
  started->Stop();
  std::vector<std::thread> stoppers;
  started->Start();
  for (int i = 0; i < 4; ++i) stoppers.emplace_back([&] { started->Stop(); });
  for (std::thread& stopper : stoppers) stopper.join();
  started->Start();
  started->PostTask(this->Note("runs again"));
  EXPECT_EQ(this->events.Take(), "runs again;");
  Base::PostStop(started, [this] { this->events.Add("stopped by itself"); });
  EXPECT_EQ(this->events.Take(), "stopped by itself;");
}

// Some of them do so before `Start` has stored the thread.
TYPED_TEST(ThreadTest, ALoopMayStopItselfAtOnceAndBeReleased) {
  for (int i = 0; i < 2000; ++i) {
    auto thread = Base::MakeShared<TypeParam>();
    thread->PostTask(Base::MakeCallback([thread] { thread->Stop(); }));
    thread->Start();
  }
}

TYPED_TEST(ThreadTest, ALoopRunsInsideATaskOfAnother) {
  auto const outer = Base::MakeShared<Base::ThreadLinux>();
  auto const inner = Base::MakeShared<TypeParam>();
  inner->Stop();  // Run clears it
  outer->PostTask(Base::MakeCallback([&] {
    inner->PostTask(Base::MakeCallback([&] {
      EXPECT_TRUE(inner->IsCurrentThread());
      EXPECT_TRUE(outer->IsCurrentThread());
      EXPECT_TRUE(Base::Thread::GetCurrent() == Base::Shared<Base::Thread>(inner));
      inner->Stop();
    }));
    inner->Run();
    EXPECT_FALSE(inner->IsCurrentThread());
    EXPECT_TRUE(Base::Thread::GetCurrent() == Base::Shared<Base::Thread>(outer));
    outer->Stop();
  }));
  outer->Run();
  EXPECT_FALSE(Base::Thread::GetCurrent());
}

}  // namespace
