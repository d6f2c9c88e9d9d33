#include "trace/crash/crash_handler.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <atomic>
#include <barrier>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/callback.h"
#include "base/glib/thread_pool_linux_glib.h"
#include "base/loop/thread_linux.h"
#include "base/shared.h"
#include "tests/support/base/child.h"
#include "tests/support/trace/log_socket.h"
#include "tests/support/utilities/arguments/settings.h"
#include "trace/crash/crash_stack.h"
#include "trace/crash/signal_safe_line.h"
#include "trace/trace.h"

TRACE_MODULE("crash_handler_test");

// Else the sanitizers' own handlers would stay in the place of the one under test.
// NOLINTBEGIN(readability-identifier-naming): their names
extern "C" char const* __asan_default_options() {
  return "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:use_sigaltstack=0";
}
// Runs before ThreadSanitizer is ready.
extern "C" [[gnu::no_sanitize_thread]] char const* __tsan_default_options() {
  return __asan_default_options();
}
// NOLINTEND(readability-identifier-naming)

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif
// The signal of __builtin_trap.
#if defined(__aarch64__)
constexpr int trapSignal = SIGTRAP;
constexpr char const* trapName = "SIGTRAP";
#else
constexpr int trapSignal = SIGILL;
constexpr char const* trapName = "SIGILL";
#endif
#if defined(__SANITIZE_THREAD__)
constexpr int signalOfCrashedReport = SIGSEGV;  // it blocks every signal in every handler
#else
constexpr int signalOfCrashedReport = SIGILL;
#endif

namespace {

char* closedPage = nullptr;

[[gnu::noinline]] void WriteToClosedPage() { *static_cast<char volatile*>(closedPage) = 1; }

// How malloc and write fail. The sanitizers have functions of their own in the place of these.
std::atomic<bool> isMallocBroken{false};
enum class Write { Works, CrashesOnce, Waits, IsSignalled };
std::atomic<Write> writing{Write::Works};

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// NOLINTBEGIN(readability-*): the C library's names
extern "C" void* __libc_malloc(std::size_t size);
extern "C" ssize_t __write(int fd, void const* data, std::size_t length);

extern "C" void* malloc(std::size_t size) {
  if (isMallocBroken) {
    // The exit status tells that the crash handler has called malloc, too.
    static bool hasCrashed = false;
    if (std::exchange(hasCrashed, true)) _exit(99);
    WriteToClosedPage();
  }
  return __libc_malloc(size);
}

extern "C" ssize_t write(int fd, void const* data, std::size_t length) {
  Write way = Write::CrashesOnce;
  if (writing.compare_exchange_strong(way, Write::Works)) WriteToClosedPage();
  if (way == Write::Waits) pause();
  if (way == Write::IsSignalled) kill(getpid(), SIGSEGV);
  return __write(fd, data, length);
}
// NOLINTEND(readability-*)

#endif

namespace {

// Each crash is one of a child, in a folder of its own.
class CrashTest : public testing::Test {
 protected:
  void SetUp() override {
    void* const page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    closedPage = static_cast<char*>(page);
    Trace::RenderTraceValue(pageText, page);
  }

  void TearDown() override { munmap(closedPage, 4096); }

  // Returns the wait status of the child; `lines` is its trace file, `err` its standard error.
  int Crash(std::function<void()> crash, std::vector<std::string> arguments = {},
            bool skipHandler = false) {
    TemporaryDirectory const directory;
    arguments.insert(arguments.begin(),
                     {"--trace-level=1", "--trace-folder=" + directory.path.string()});
    int const status = RunInChild([&] {
      std::filesystem::current_path(directory.path);  // where a core goes
      dup2(open("err", O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
      SetArguments(arguments);
      Trace::InitializeTrace(skipHandler, "crash.log");
      crash();
    });
    err = ReadFile(directory.path / "err");
    lines = ReadLines(directory.path / "crash.log");
    return status;
  }

  // Whether `lines` are one report of one thread: the signal, then the frames.
  testing::AssertionResult IsReportOf(std::string const& signal, std::string const& address) {
    std::regex const first(
        R"(\d\d:\d\d:\d\d\.\d{3}(Z FATAL    crash_handler\((\d+):(\d+)\) - )Received fatal signal )"
        R"(\{ signal:")" +
        signal + R"(" code:-?\d+ address:)" + address + R"( thread:\3 \})");
    std::smatch match;
    if (lines.empty()) return testing::AssertionFailure() << "no line; " << err;
    if (!std::regex_match(lines[0], match, first)) return testing::AssertionFailure() << lines[0];
    std::string const frame = match[1].str() + "Frame { index:";
    pid = match[2];
    isMainThread = match[2] == match[3];
    for (std::size_t i = 1; i < lines.size(); ++i) {
      if (lines[i].find(frame + std::to_string(i - 1)) != std::string_view("09:05:33.042").size()) {
        return testing::AssertionFailure() << lines[i];
      }
    }
    return testing::AssertionSuccess();
  }

  // Whether frame `index` is in this program.
  bool IsOwnFrame(std::size_t index) {
    std::string const file = std::filesystem::read_symlink("/proc/self/exe").string();
    return lines.size() > index + 1 &&
           lines[index + 1].find(" file:\"" + file + "\" offset:0x") != std::string::npos;
  }

  std::string pageText;
  std::vector<std::string> lines;
  std::string err;
  std::string pid;
  bool isMainThread = false;
};

// The signal comes while only sigsuspend(2) unblocks it.
void AbortInSigsuspend() {
  sigset_t set;
  sigemptyset(&set);
  sigset_t const none = set;
  sigaddset(&set, SIGABRT);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  kill(getpid(), SIGABRT);
  sigsuspend(&none);
}

[[gnu::noinline]] void CallNowhere() {
  std::uintptr_t volatile nowhere = 0x10;
  std::bit_cast<void (*)()>(std::uintptr_t{nowhere})();
  nowhere = 0;  // else the compiler may turn the call into a jump
}

// The frames are smaller than the page below the stack, and few enough for ThreadSanitizer.
[[gnu::noinline]] int Overflow(int depth) {
  char volatile frame[2048];
  frame[0] = static_cast<char>(depth);
  return depth < 0 ? 0 : Overflow(depth + 1) + frame[0];
}

TEST_F(CrashTest, ASignalIsReportedAndEndsTheProcessAsItDoesWithoutAHandler) {
  struct {
    std::function<void()> crash;
    int signal;
    std::string name;
    std::string address;
  } const cases[] = {
      {&WriteToClosedPage, SIGSEGV, "SIGSEGV", pageText},
      {[] { __builtin_trap(); }, trapSignal, trapName, "0x[0-9a-f]+"},
      {[] { std::abort(); }, SIGABRT, "SIGABRT", "0"},
      {[] { kill(getpid(), SIGSEGV); }, SIGSEGV, "SIGSEGV", "0"},
      {[] { kill(getpid(), SIGBUS); }, SIGBUS, "SIGBUS", "0"},
      {[] { kill(getpid(), SIGFPE); }, SIGFPE, "SIGFPE", "0"},
      {[] { kill(getpid(), SIGILL); }, SIGILL, "SIGILL", "0"},
      {[] { kill(getpid(), SIGTRAP); }, SIGTRAP, "SIGTRAP", "0"},
      {&AbortInSigsuspend, SIGABRT, "SIGABRT", "0"},
  };
  rlimit core{};
  getrlimit(RLIMIT_CORE, &core);
  core.rlim_cur = isSanitized ? 0 : core.rlim_max;  // a sanitized process is too large for a core
  setrlimit(RLIMIT_CORE, &core);
  for (auto const& [crash, signal, name, address] : cases) {
    int const status = Crash(crash, {"--trace-console"});
    EXPECT_TRUE(IsReportOf(name, address)) << name;
    EXPECT_TRUE(isMainThread);
    bool hasOwnFrame = false;
    for (std::size_t i = 0; i < 8; ++i) hasOwnFrame = hasOwnFrame || IsOwnFrame(i);
    EXPECT_TRUE(hasOwnFrame) << name;
    std::string all;
    for (std::string const& line : lines) all += line + "\n";
    EXPECT_EQ(err, all);
    EXPECT_EQ(WTERMSIG(status), signal);
    EXPECT_EQ(status, Crash(crash, {}, true)) << "with the core's bit";
  }
  core.rlim_cur = 0;
  setrlimit(RLIMIT_CORE, &core);
}

TEST_F(CrashTest, NoSinkNoReport) {
  EXPECT_EQ(WTERMSIG(Crash(&WriteToClosedPage, {"--trace-console", "--trace-level=-1"})), SIGSEGV);
  EXPECT_TRUE(lines.empty());
  EXPECT_EQ(err, "");
}

TEST_F(CrashTest, ACallToNowhereIsTracedToItsCaller) {
  EXPECT_EQ(WTERMSIG(Crash(&CallNowhere)), SIGSEGV);
  EXPECT_TRUE(IsReportOf("SIGSEGV", "0x10"));
  ASSERT_GT(lines.size(), 2U);
  EXPECT_TRUE(lines[1].ends_with("{ index:0 address:0x10 }")) << lines[1];
  EXPECT_TRUE(IsOwnFrame(1)) << lines[2];
}

TEST_F(CrashTest, AnOverflowOfTheStackIsReported) {
  for (bool const isPool : {false, true}) {
    int const status = Crash([isPool] {
      auto const loop = Base::MakeShared<Base::ThreadLinux>();
      auto const pool = Base::MakeShared<Base::ThreadPoolLinuxGlib>(nullptr, 1, true);
      loop->Start();
      Base::TaskRunner& runner = isPool ? static_cast<Base::TaskRunner&>(*pool) : *loop;
      runner.PostTask(Base::MakeCallback([] { Overflow(0); }));
      pause();
    });
    EXPECT_EQ(WTERMSIG(status), SIGSEGV);
    EXPECT_TRUE(IsReportOf("SIGSEGV", "0x[0-9a-f]+"));
    EXPECT_FALSE(isMainThread);
    EXPECT_TRUE(IsOwnFrame(20));
  }
}

TEST_F(CrashTest, ACrashInsideTheAllocatorOrTheTraceLogIsReported) {
  if (isSanitized) GTEST_SKIP();
  int status = Crash([] {
    isMallocBroken = true;
    std::vector<int>* volatile const numbers = new std::vector<int>(1000);
    delete numbers;
  });
  EXPECT_EQ(WTERMSIG(status), SIGSEGV) << status;
  EXPECT_TRUE(IsReportOf("SIGSEGV", pageText));

  status = Crash([] {
    writing = Write::CrashesOnce;
    TRACE_ERROR("Not written");
  });
  EXPECT_EQ(WTERMSIG(status), SIGSEGV);
  EXPECT_TRUE(IsReportOf("SIGSEGV", pageText));
}

// Traps with a stack pointer into the closed page. The unwinder crashes there in its turn; the
// handler runs only on a crash stack.
[[noreturn]] void TrapWithoutStack() {
  char* const stack = closedPage + 2048;
#if defined(__x86_64__)
  asm volatile("mov %0, %%rsp; mov %0, %%rbp; ud2" : : "r"(stack));
#elif defined(__aarch64__)
  asm volatile("mov sp, %0; mov x29, %0; udf #0" : : "r"(stack));
#endif
  __builtin_unreachable();
}

TEST_F(CrashTest, ACrashOfTheReportEndsTheProcessByTheFirstSignal) {
  EXPECT_EQ(WTERMSIG(Crash(&TrapWithoutStack)), signalOfCrashedReport);
  EXPECT_TRUE(IsReportOf("SIGILL", "0x[0-9a-f]+"));
  EXPECT_EQ(lines.size(), 2U) << "frame 0 needs no stack";
  EXPECT_TRUE(IsOwnFrame(0));
}

TEST_F(CrashTest, AReportIsNeitherEndedBySentSignalsNorHeldUpForEver) {
  if (isSanitized) GTEST_SKIP();
  int const signalled = Crash([] {
    writing = Write::IsSignalled;
    std::abort();
  });
  EXPECT_EQ(WTERMSIG(signalled), SIGABRT);
  EXPECT_TRUE(IsReportOf("SIGABRT", "0"));
  EXPECT_GT(lines.size(), 3U);

  int const waiting = Crash([] {
    writing = Write::Waits;
    WriteToClosedPage();
  });
  EXPECT_EQ(WTERMSIG(waiting), SIGSEGV);
}

TEST_F(CrashTest, OfThreadsThatCrashAtOnceOneIsReported) {
  for (int round = 0; round < 20; ++round) {
    int const status = Crash([] {
      constexpr int count = 4;
      std::barrier start(count);
      std::vector<std::thread> threads;
      for (int i = 0; i < count; ++i) {
        threads.emplace_back([&start, i] {
          Trace::EnsureCrashStack();
          start.arrive_and_wait();
          if (i % 2 == 0) WriteToClosedPage();
          Overflow(0);
        });
      }
      pause();
    });
    EXPECT_EQ(WTERMSIG(status), SIGSEGV);
    EXPECT_TRUE(IsReportOf("SIGSEGV", "0x[0-9a-f]+"));
    EXPECT_FALSE(isMainThread);
    EXPECT_GT(lines.size(), 3U) << "the other threads end no report";
  }
}

TEST_F(CrashTest, ASignalHandlerWritesALineWhileTheAllocatorIsBroken) {
  int const status = Crash(
      [] {
        signal(SIGTERM, [](int) {
          errno = ENOTTY;
          Trace::WriteSignalSafeLine("test", Trace::levelWarning, "Not shown", "what", "level");
          Trace::WriteSignalSafeLine("test", Trace::levelError, "Ended", "what", "reader");
          _exit(errno == ENOTTY ? 0 : 2);
        });
        isMallocBroken = !isSanitized;
        raise(SIGTERM);
      },
      {"--trace-console"});
  EXPECT_EQ(status, 0);
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex(R"(\S{13} ERROR    test\((\d+):\1\) - Ended \{ what:"reader" \})")))
      << lines[0];
  EXPECT_EQ(err, lines[0] + "\n");
}

TEST_F(CrashTest, AForkedChildReportsItsOwnCrashAndTheParentGoesOn) {
  int const status = Crash([] {
    TRACE_ERROR("Here");
    EXPECT_EQ(WTERMSIG(RunInChild(&WriteToClosedPage)), SIGSEGV);
    TRACE_ERROR("Still here");
  });
  EXPECT_EQ(status, 0);
  ASSERT_GT(lines.size(), 2U);
  lines.erase(lines.begin());
  EXPECT_TRUE(lines.back().ends_with(" - Still here"));
  std::string const parent = lines.back().substr(lines.back().find('('));
  lines.pop_back();
  EXPECT_TRUE(IsReportOf("SIGSEGV", pageText));
  EXPECT_NE(parent.find("(" + pid + ":"), 0U);
}

// The log, which would install the handler first, is not used here.
TEST_F(CrashTest, HandlersThatAreThereStay) {
  int const status = RunInChild([] {
    signal(SIGSEGV, [](int) { _exit(7); });
    signal(SIGABRT, SIG_IGN);
    Trace::InstallCrashHandler();
    raise(SIGABRT);
    raise(SIGSEGV);
  });
  EXPECT_EQ(WEXITSTATUS(status), 7) << status;
}

TEST_F(CrashTest, SyslogGetsTheLines) {
  LogSocket const log;
  int const status = Crash(
      [&] {
        log.MountInChild();
        WriteToClosedPage();
      },
      {"--trace-syslog"});
  if (WIFEXITED(status) && WEXITSTATUS(status) == LogSocket::noNamespace) GTEST_SKIP();
  EXPECT_EQ(WTERMSIG(status), SIGSEGV);
  auto const received = log.ReceiveAll();
  EXPECT_GT(received.size(), 1U) << "lines that no longer fit into the queue are dropped";
  ASSERT_LE(received.size(), lines.size());
  for (std::size_t i = 0; i < received.size(); ++i) {
    EXPECT_EQ(received[i], std::string("<10>") + program_invocation_short_name + ": " + lines[i]);
  }
}

}  // namespace
