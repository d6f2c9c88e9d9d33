#include <dlfcn.h>

#include <atomic>
#include <functional>
#include <future>
#include <latch>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/exception.h"
#include "base/glib/process_pools.h"
#include "base/glib/thread_linux_glib.h"
#include "base/glib/thread_pool_linux_glib.h"
#include "base/loop/io_thread.h"
#include "base/loop/thread_pool.h"
#include "tests/support/base/child.h"
#include "tests/support/base/error_text.h"
#include "tests/support/base/live_objects_test.h"
#include "tests/support/utilities/arguments/settings.h"
#include "trace/trace.h"

namespace {

// Each runs once: just before a main loop runs, and when a timer begins to call back.
std::function<void()> beforeMainLoop;
std::function<void()> onTimer;

// Whether GLib cannot start threads.
std::atomic<bool> isOutOfThreads{false};

void FailWithoutThreads(GError** error) {
  if (isOutOfThreads) g_set_error(error, G_THREAD_ERROR, 7, "out of threads");
}

template <typename Function>
Function* FindReal(Function* /*own*/, char const* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand in for GLib's functions and call them. A main loop cannot be quit before this one.
extern "C" void g_main_loop_run(GMainLoop* loop) {
  if (beforeMainLoop) std::exchange(beforeMainLoop, {})();
  FindReal(&g_main_loop_run, "g_main_loop_run")(loop);
}

// A timer's callback calls this before it looks whether its source is destroyed.
extern "C" GSource* g_main_current_source() {
  if (onTimer) std::exchange(onTimer, {})();
  return FindReal(&g_main_current_source, "g_main_current_source")();
}

// As GLib documents it, a push that fails leaves the item in the pool.
extern "C" gboolean g_thread_pool_push(GThreadPool* pool, gpointer item, GError** error) {
  FindReal(&g_thread_pool_push, "g_thread_pool_push")(pool, item, nullptr);
  FailWithoutThreads(error);
  return isOutOfThreads ? FALSE : TRUE;
}

// As GLib documents it, an error may come with a pool.
extern "C" GThreadPool* g_thread_pool_new(GFunc function, gpointer data, gint maximumThreads,
                                          gboolean exclusive, GError** error) {
  GThreadPool* const pool = FindReal(&g_thread_pool_new, "g_thread_pool_new")(
      function, data, maximumThreads, exclusive, error);
  FailWithoutThreads(error);
  return pool;
}

namespace {

using Base::MakeCallback;
using Base::Shared;

// These come first, because they fork: no thread may run yet.
TEST(GlibProcessTest, TheTimersOfALoopAndOfAPool) {
  TemporaryDirectory const directory;
  std::string const path = directory.path / "trace";
  int const status = RunInChild([&] {
    SetArguments({"--trace-file=" + path, "--trace-level=5"});
    Trace::InitializeTrace(true, "unused");
    auto const thread = Base::MakeShared<Base::ThreadLinuxGlib>();
    thread->PostTask(MakeCallback([&] {
      // In a task, so that the loop sets a timer for it before it looks at what is due.
      thread->PostScheduledTask(3, MakeCallback([] {}));
      beforeMainLoop = [&] { thread->Stop(); };
    }));
    thread->Run();
    auto const pool = Base::MakeShared<Base::ThreadPoolLinuxGlib>(nullptr, 1, false);
    pool->PostScheduledTask(-1, MakeCallback([] {}));
    pool->Close(true);
  });
  EXPECT_EQ(status, 0);
  std::string const lines = ReadFile(path);
  EXPECT_NE(lines.find("ThreadPool wake time has past"), std::string::npos);
  EXPECT_NE(lines.find(" wakeTimeMs:10 }\n"), std::string::npos) << "the shortest";
}

TEST(GlibProcessTest, TheThreadsOfAProcessRunTasksUntilTheyAreShutDown) {
  int const status = RunInChild([] {
    EventLog events;
    auto const note = [&events](auto const& isRight) {
      return MakeCallback([&events, isRight] { events.Add(isRight() ? "right" : "wrong"); });
    };
    auto const ioThread = Base::GetIOThread();
    auto const pool = Base::GetThreadPool();
    auto const exclusive = Base::GetExclusiveThreadPool();
    EXPECT_TRUE(ioThread == Base::GetIOThread());
    EXPECT_TRUE(pool == Base::GetThreadPool());
    auto const onGlibThread = [] { return Base::GetGlibThread()->IsCurrentThread(); };
    auto const elsewhere = [] { return !Base::Thread::GetCurrent(); };
    ioThread->PostTask(note([&] { return ioThread->IsCurrentThread(); }));
    pool->PostTask(note(elsewhere));
    pool->PostScheduledTask(5, note(onGlibThread));
    exclusive->PostTask(note(elsewhere));
    exclusive->PostScheduledTask(5, note(elsewhere));
    EXPECT_EQ(events.Take(5), "right;right;right;right;right;");
    pool->PostTask(note([] { return static_cast<bool>(Base::GetThreadPool()); }));
    Base::ShutdownThreadPools();
    Base::ShutdownThreadPools();
    EXPECT_EQ(events.Take(), "right;");
    EXPECT_THROW(pool->PostTask(note(elsewhere)), Base::Exception);
    EXPECT_EQ(ErrorOf([] { Base::GetIOThread(); }), "ThreadPool has been shutdown");
    EXPECT_THROW(Base::GetThreadPool(), Base::Exception);
    EXPECT_THROW(Base::GetExclusiveThreadPool(), Base::Exception);
    EXPECT_THROW(Base::GetGlibThread(), Base::Exception);
  });
  EXPECT_EQ(status, 0);
}

class GlibTest : public LiveObjectsTest {
 protected:
  void SetUp() override {
    LiveObjectsTest::SetUp();
    thread = Base::MakeShared<Base::ThreadLinuxGlib>();
  }

  void TearDown() override {
    thread->Stop();
    thread.Reset();
    LiveObjectsTest::TearDown();
  }

  Shared<Base::ThreadPool> MakePool(int maximumThreads, bool exclusive = false) {
    return Base::MakeShared<Base::ThreadPoolLinuxGlib>(thread->GetContext(), maximumThreads,
                                                       exclusive);
  }

  // How many timers a pool has set; takes them off.
  int TakeTimers(Shared<Base::ThreadPool> const& pool) {
    int count = 0;
    while (GSource* const source =
               g_main_context_find_source_by_user_data(thread->GetContext(), pool.Get())) {
      g_source_destroy(source);
      ++count;
    }
    return count;
  }

  Shared<Base::ThreadLinuxGlib> thread;
};

TEST_F(GlibTest, APostOrStopJustBeforeTheMainLoopIsNotLost) {
  auto const runBeforeMainLoop = [this](std::function<void()> const& function) {
    thread->PostTask(MakeCallback(
        [function] { beforeMainLoop = [function] { std::thread(function).join(); }; }));
  };
  thread->Start();
  runBeforeMainLoop([this] { thread->PostTask(Note("posted")); });
  EXPECT_EQ(events.Take(), "posted;");
  runBeforeMainLoop([this] { thread->PostScheduledTask(0, Note("scheduled")); });
  EXPECT_EQ(events.Take(), "scheduled;");
  thread->Stop();

  beforeMainLoop = [this] { thread->Stop(); };
  thread->Run();
}

TEST_F(GlibTest, SourcesOfOthersFireOnTheLoopAndHoldUpNoTask) {
  std::function<void()> onReady = [this] {
    EXPECT_TRUE(thread->IsCurrentThread());
    thread->PostTask(Note("posted"));
  };
  auto const call = [](gpointer function) -> gboolean {
    (*static_cast<std::function<void()>*>(function))();
    return G_SOURCE_CONTINUE;  // ready again at once
  };
  Base::GlibSource const source(g_idle_source_new());
  g_source_set_priority(source.get(), G_PRIORITY_DEFAULT);
  g_source_set_callback(source.get(), call, &onReady, nullptr);
  g_source_attach(source.get(), thread->GetContext());
  thread->Start();
  EXPECT_TRUE(events.Take(3).starts_with("posted;posted;posted;"));
  thread->Stop();
}

TEST_F(GlibTest, APoolRunsTasksAtTheSameTime) {
  auto const pool = MakePool(2);
  std::latch both(2);
  for (int i = 0; i < 2; ++i) pool->PostTask(MakeCallback([&] { both.arrive_and_wait(); }));
  pool->Close(false);
}

TEST_F(GlibTest, ATimerThatFiresAfterCloseTouchesNoPool) {
  auto pool = MakePool(1);
  pool->PostScheduledTask(0, Note("never"));
  onTimer = [&pool] {
    std::thread([&pool] {
      pool->Close(false);
      pool.Reset();
    }).join();
  };
  g_main_context_iteration(thread->GetContext(), TRUE);
  EXPECT_FALSE(pool);
  EXPECT_EQ(events.Take(0), "");
}

// With or without its flag, as it comes from outside.
TEST_F(GlibTest, CloseRunsPostedTasksAndDiscardsScheduledOnes) {
  for (bool const cancelTasks : {false, true}) {
    auto const pool = MakePool(1);
    int ran = 0;  // without a lock: Close is all the synchronisation it takes
    for (int i = 0; i < 100; ++i) pool->PostTask(MakeCallback([&] { ++ran; }));
    pool->PostScheduledTask(1'000'000, MakeCallback([pool] {}));
    pool->Close(cancelTasks);
    EXPECT_EQ(ran, 100);
    pool->Close(cancelTasks);
    EXPECT_THROW(pool->PostTask(Note("never")), Base::Exception);
    EXPECT_THROW(pool->PostScheduledTask(0, Note("never")), Base::Exception);
  }
}

TEST_F(GlibTest, CloseFromInsideATaskDoesNotWait) {
  thread->Start();
  for (bool const cancelTasks : {false, true}) {
    auto const pool = MakePool(1);
    auto const close = MakeCallback([&, pool] {
      pool->PostTask(Note("behind"));
      pool->Close(cancelTasks);
      events.Add("closed");
    });
    pool->PostTask(close);
    std::string seen = events.Take();
    pool->Close(false);  // this one waits
    seen += events.Take(0);
    EXPECT_EQ(seen, cancelTasks ? "closed;" : "closed;behind;");

    auto const other = MakePool(1);
    other->PostScheduledTask(0, MakeCallback([&, other] {
                               other->PostScheduledTask(0, Note("never"));
                               other->Close(cancelTasks);
                               events.Add("closed");
                             }));
    seen = events.Take();
    other->Close(false);
    EXPECT_EQ(seen + events.Take(0), "closed;");
  }
}

// The fixture finds a pool that is left.
TEST_F(GlibTest, ATaskMayReleaseTheLastHandle) {
  thread->Start();
  for (bool const exclusive : {false, true})
    for (bool const scheduled : {false, true}) {
      std::promise<void> alone;
      auto pool = MakePool(1, exclusive);
      Base::Task task = MakeCallback([this, pool, isAlone = alone.get_future()] {
        isAlone.wait();
        events.Add("ran");
      });
      scheduled ? pool->PostScheduledTask(0, std::move(task)) : pool->PostTask(std::move(task));
      pool.Reset();
      alone.set_value();
      EXPECT_EQ(events.Take(), "ran;");
    }
}

TEST_F(GlibTest, APoolWithoutThreadsFailsAndStillCloses) {
  auto const pool = MakePool(0);
  isOutOfThreads = true;
  EXPECT_EQ(ErrorOf([&] { pool->PostTask(MakeCallback([pool] {})); }), "ThreadPool Failed");
  EXPECT_EQ(ErrorOf([&] { MakePool(1, true); }), "ThreadPool Failed");
  isOutOfThreads = false;
  EXPECT_EQ(ErrorOf([&] { MakePool(-1, true); }), "ThreadPool Failed");  // GLib returns no pool
  pool->Close(false);
}

// Four threads post, fire timers and close at once. Every posted task runs, and no task is left.
TEST_F(GlibTest, PostsTimersAndCloseMayMeet) {
  thread->Start();
  for (int round = 0; round < 200; ++round) {
    auto const pool = MakePool(2, round % 2 == 0);
    std::atomic<int> posted{0};
    std::atomic<int> ran{0};
    std::atomic<int> rejected{0};
    std::vector<std::thread> posters;
    for (int poster = 0; poster < 2; ++poster) {
      posters.emplace_back([&] {
        std::string const error = ErrorOf([&] {
          for (int i = 0;; ++i) {
            pool->PostScheduledTask(i % 3 - 1, MakeCallback([pool] {}));
            pool->PostTask(MakeCallback([pool, &ran] { ++ran; }));
            ++posted;
          }
        });
        if (error == "ThreadPool Closed") ++rejected;
      });
    }
    while (ran < round % 20) std::this_thread::yield();
    pool->Close(round % 3 == 0);
    int const ranByClose = ran;
    for (std::thread& poster : posters) poster.join();
    EXPECT_EQ(rejected, 2);
    EXPECT_EQ(ran, ranByClose);
    EXPECT_EQ(ran, posted);
    EXPECT_EQ(TakeTimers(pool), 0);
  }
}

}  // namespace
