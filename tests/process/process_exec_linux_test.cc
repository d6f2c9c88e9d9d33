#include "process/process_exec_linux.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <pthread.h>
#include <stdlib.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string_view>
#include <vector>

#include "tests/support/base/child.h"
#include "tests/support/base/descriptor_limit.h"
#include "tests/support/base/loop/loop_fixture.h"
#include "tests/support/utilities/arguments/settings.h"
#include "trace/trace.h"

namespace {

using Process::ProcessExec;
using Process::ProcessExecLinux;

std::size_t CountDescriptors() {
  auto const files = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

bool HasChildren() { return waitpid(-1, nullptr, WNOHANG) != -1; }

// Returns the text of the exception.
std::string ErrorOfExecute(Base::Shared<Base::ThreadLinux> const& loop, std::string const& file,
                           int errorCode) {
  try {
    ProcessExecLinux::Execute(loop, file, {});
  } catch (Base::ExceptionPosix const& err) {
    EXPECT_EQ(err.GetErrorCode(), errorCode);
    return err.what();
  }
  return "none";
}

// Writes `text` and then closes the stream.
void WriteAll(Base::Shared<IO::FileWriteStream> const& input, std::string_view text) {
  input->Write(Base::CopyOfText(text),
               Base::MakeCallback([input](Base::Status const& status, Base::ByteBuffer) {
                 EXPECT_FALSE(status);
                 input->Close();
               }));
}

class ProcessExecTest : public LoopTest {
 protected:
  void SetUp() override {
    LoopTest::SetUp();
    // The programs must not inherit what this process was started with.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    _descriptors = CountDescriptors();
  }

  void TearDown() override {
    OnLoop([] {});  // a task before this one may still close streams
    EXPECT_EQ(CountDescriptors(), _descriptors);
    EXPECT_FALSE(HasChildren()) << "a zombie";
    LoopTest::TearDown();
  }

  Base::Shared<ProcessExec> Execute(std::string const& file,
                                    std::vector<std::string> const& words) {
    return ProcessExecLinux::Execute(loop, file, words);
  }

  Base::Shared<ProcessExec> Shell(std::string const& script) {
    return Execute("sh", {"-c", script});
  }

  // Reads to the end; the event has the whole text.
  void ReadAll(Base::Shared<IO::FileReadStream> const& stream, std::string const& text = {}) {
    OnLoop([&] {
      stream->Read(Base::MakeCallback(
          [=, this](Base::Status const& status, Base::ByteBuffer data, bool complete) {
            if (status || complete) {
              events.Add(StatusText(status) + " " + text);
            } else {
              ReadAll(stream, text + Text(data));
            }
          }));
    });
  }

  // Waits for the program's end and returns its output.
  std::string GetOutput(Base::Shared<ProcessExec> const& process) {
    ReadAll(process->GetOutputStream());
    std::string const output = events.Take();
    WaitForExit(process);
    EXPECT_EQ(process->GetExitCode(), 0);
    return output;
  }

  void NoteExit(Base::Shared<ProcessExec> const& process) {
    process->WaitForExit(Base::MakeCallback([this] { events.Add("exited"); }));
  }

  void WaitForExit(Base::Shared<ProcessExec> const& process) {
    NoteExit(process);
    EXPECT_EQ(events.Take(), "exited;");
  }

  void CloseInput(Base::Shared<ProcessExec> const& process) {
    OnLoop([&] { process->GetInputStream()->Close(); });
  }

 private:
  std::size_t _descriptors = 0;
};

// The text is longer than a pipe holds: the program blocks on its pipes, and the loop must not.
TEST_F(ProcessExecTest, AllInputAndOutputPassesThroughTheStreams) {
  auto const process = Execute("cat", {"-", "/nonexistent"});
  EXPECT_EQ(process->GetExitCode(), 1) << "the exit is not known";
  std::string const text(1U << 20U, 'x');
  ReadAll(process->GetErrorStream());
  OnLoop([&] { WriteAll(process->GetInputStream(), text); });
  ReadAll(process->GetOutputStream());
  std::string const seen = events.Take(2);
  EXPECT_NE(seen.find("ok " + text + ";"), std::string::npos);
  EXPECT_NE(seen.find("ok cat: /nonexistent: No such file or directory\n;"), std::string::npos);
  EXPECT_FALSE(process->HasExited());
  WaitForExit(process);
  EXPECT_TRUE(process->HasExited());
  EXPECT_EQ(process->GetExitCode(), 1);
}

TEST_F(ProcessExecTest, AProgramGetsItsArgumentsAndThreeDescriptors) {
  Base::UniqueFd const other(open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(GetOutput(Execute("printf", {"%s|", "a b", "", "$HOME"})), "ok a b||$HOME|;");
  // Descriptor 3 is the one with which `ls` reads the directory.
  EXPECT_EQ(GetOutput(Execute("ls", {"/proc/self/fd"})), "ok 0\n1\n2\n3\n;");
}

TEST_F(ProcessExecTest, AProgramStartsWithNoSignalBlockedOrIgnored) {
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  sigdelset(&blocked, SIGUSR1);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  // The fixture makes this process ignore SIGPIPE.
  std::string const output = GetOutput(Execute("grep", {"^SigBlk\\|^SigIgn", "/proc/self/status"}));
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, &before, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 1) << "the caller's mask has changed";
  EXPECT_EQ(sigismember(&after, SIGUSR1), 0) << "the caller's mask has changed";
  EXPECT_EQ(output, "ok SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n;");
}

TEST_F(ProcessExecTest, AProgramThatCannotRunLeavesNothing) {
  EXPECT_EQ(ErrorOfExecute(loop, "/nonexistent/program", ENOENT),
            "Parent detected that child process exec failed - No such file or directory (Err 2)");
  EXPECT_EQ(ErrorOfExecute(loop, "program-that-is-not-in-path", ENOENT),
            "Parent detected that child process exec failed - No such file or directory (Err 2)");
  EXPECT_EQ(ErrorOfExecute(loop, "/etc/passwd", EACCES),
            "Parent detected that child process exec failed - Permission denied (Err 13)");
  std::string const zeroByte("true\0", 5);
  EXPECT_EQ(ErrorOfExecute(loop, zeroByte, EINVAL), "Invalid Argument - Invalid argument (Err 22)");
}

TEST_F(ProcessExecTest, EachPipeThatCannotBeMadeHasItsText) {
  std::vector<std::string> const texts{"Failed to create standard input pipe for child process",
                                       "Failed to create standard output pipe for child process",
                                       "Failed to create standard error pipe for child process",
                                       "Failed to create child prcess exec pipe"};
  for (int available = 0; available < 8; ++available) {
    DescriptorLimit const limit(GetNextDescriptor(available));
    EXPECT_EQ(ErrorOfExecute(loop, "true", EMFILE),
              texts[static_cast<std::size_t>(available) / 2] + " - Too many open files (Err 24)");
    EXPECT_EQ(GetNextDescriptor(available), -1);
    EXPECT_TRUE(available == 0 || GetNextDescriptor(available - 1) != -1) << "some are open";
  }
}

// Three programs at once; nothing but their exits wakes the loop.
TEST_F(ProcessExecTest, EveryCallbackLearnsOfTheExitHoweverItComes) {
  auto const early = Shell("exit 5");
  auto const killedEarly = Shell("kill -9 $$");
  auto const killed = Execute("cat", {});
  for (auto const& process : {early, killedEarly}) {
    siginfo_t info{};
    auto const pid = static_cast<id_t>(process->GetPid());
    ASSERT_EQ(waitid(P_PID, pid, &info, WEXITED | WNOWAIT), 0);
  }
  NoteExit(killed);
  killed->WaitForExit({});
  NoteExit(killed);
  WaitForExit(early);
  WaitForExit(killedEarly);
  EXPECT_FALSE(killed->HasExited());
  kill(killed->GetPid(), SIGKILL);
  EXPECT_EQ(events.Take(2), "exited;exited;");
  WaitForExit(early);  // again
  EXPECT_EQ(early->GetExitCode(), 5);
  EXPECT_EQ(killedEarly->GetExitCode(), 0);
  EXPECT_EQ(killed->GetExitCode(), 0);
}

TEST_F(ProcessExecTest, AnExitIsSeenWithoutAPidfd) {
  auto const process = Execute("cat", {});
  {
    DescriptorLimit const limit(GetNextDescriptor());
    NoteExit(process);
    OnLoop([] {});
  }
  process->Close();
  EXPECT_EQ(events.Take(), "exited;");
}

TEST_F(ProcessExecTest, CloseTakesTheStreamsAway) {
  auto const process = Shell("cat; echo done >&2");
  ReadAll(process->GetOutputStream());
  auto const error = process->GetErrorStream();
  process->Close();
  EXPECT_EQ(events.Take(), "File closed ;");
  WaitForExit(process);
  std::string const end = " stream unavailable. - Unknown error -1 (Err -1)";
  EXPECT_EQ(ErrorOf([&] { process->GetInputStream(); }), "Input" + end);
  EXPECT_EQ(ErrorOf([&] { process->GetOutputStream(); }), "Output" + end);
  EXPECT_EQ(ErrorOf([&] { process->GetErrorStream(); }), "Error" + end);
  EXPECT_EQ(ErrorOf([&] { error->Read(NoteRead()); }), "Read Stream Closed");
  process->Close();
}

// The fixture finds what stays. The dropped program ends because its input does.
TEST_F(ProcessExecTest, TheLoopsEndDiscardsCallbacksAndNoProgram) {
  auto dropped = Execute("cat", {});
  auto const kept = Execute("cat", {});
  int const pid = dropped->GetPid();
  dropped->WaitForExit(Base::MakeCallback([dropped] { FAIL() << "the loop has ended"; }));
  NoteExit(kept);
  ReadAll(dropped->GetOutputStream());
  dropped.Reset();
  loop->Stop();
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
  loop->Start();
  CloseInput(kept);
  WaitForExit(kept);
}

// Runs in a child between its fork and its exec, when a test sets it.
std::function<void()> inForkedChild;

class ForkedChildTest : public ProcessExecTest {
 protected:
  static void SetUpTestSuite() {
    static int const error = pthread_atfork(nullptr, nullptr, [] {
      if (inForkedChild) inForkedChild();
    });
    ASSERT_EQ(error, 0);
  }

  void TearDown() override {
    inForkedChild = {};
    ProcessExecTest::TearDown();
  }

  std::int32_t GetExitCodeOfTrue() {
    auto const process = Execute("true", {});
    WaitForExit(process);
    return process->GetExitCode();
  }
};

// The child goes on to its exec once the kernel shows its parent, this thread, asleep.
TEST_F(ForkedChildTest, TheParentSleepsUntilTheExec) {
  std::string const file = "/proc/" + std::to_string(getpid()) + "/stat";
  inForkedChild = [&] {
    std::array<char, 64> text{};
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::string_view(text.data()).find(") S ") == std::string_view::npos) {
      if (std::chrono::steady_clock::now() > deadline) _exit(1);
      Base::UniqueFd const stat(open(file.c_str(), O_RDONLY));
      static_cast<void>(!read(stat.Get(), text.data(), text.size() - 1));
    }
  };
  EXPECT_EQ(GetExitCodeOfTrue(), 0);
}

TEST_F(ForkedChildTest, ASignalBeforeTheExecDoesNotRunThisProcesssHandler) {
  signal(SIGWINCH, [](int) { _exit(9); });
  inForkedChild = [] { raise(SIGWINCH); };
  EXPECT_EQ(GetExitCodeOfTrue(), 0);
  signal(SIGWINCH, SIG_DFL);
}

// In a child process, which cannot print then: its exit status says whether it passed.
TEST(ClosedStreamsTest, AProgramGetsItsPipes) {
  for (std::vector<int> const& closed : std::vector<std::vector<int>>{{0}, {1}, {2}, {0, 1, 2}}) {
    int const status = RunInChild([&] {
      auto const loop = Base::MakeShared<Base::ThreadLinux>();
      for (int const fd : closed) close(fd);
      auto const process =
          ProcessExecLinux::Execute(loop, "sh", {"-c", "cat; echo error >&2; exit 7"});
      loop->PostTask(Base::MakeCallback([&] {
        WriteAll(process->GetInputStream(), "input");
        process->WaitForExit(Base::MakeCallback([&] { loop->Stop(); }));
      }));
      loop->Run();
      std::string texts;
      for (auto const& stream : {process->GetOutputStream(), process->GetErrorStream()}) {
        loop->PostTask(Base::MakeCallback([&] {
          stream->Read(Base::MakeCallback([&](Base::Status const&, Base::ByteBuffer data, bool) {
            texts.append(data.GetSpan().begin(), data.GetSpan().end());
            loop->Stop();
          }));
        }));
        loop->Run();
      }
      EXPECT_EQ(texts, "inputerror\n");
      EXPECT_EQ(process->GetExitCode(), 7);
      process->Close();  // posts a task, which holds the loop until it has run
      loop->PostTask(Base::MakeCallback([&] { loop->Stop(); }));
      loop->Run();
    });
    EXPECT_EQ(status, 0) << closed[0];
  }
}

// The last pipe gets descriptor 0 and another, and then no descriptor is free to move the one at 0.
TEST(ClosedStreamsTest, APipeThatCannotBeMovedHasItsText) {
  int const status = RunInChild([] {
    auto const loop = Base::MakeShared<Base::ThreadLinux>();
    close(STDIN_FILENO);
    DescriptorLimit const limit(GetNextDescriptor(8));
    EXPECT_EQ(ErrorOfExecute(loop, "true", EMFILE),
              "Failed to manipulate child prcess exec pipe - Too many open files (Err 24)");
  });
  EXPECT_EQ(status, 0);
}

TEST(ProcessLogTest, TheParentLogsAFailedExecAndTheChildNothing) {
  TemporaryDirectory const directory;
  int const status = RunInChild([&] {
    SetArguments({"--trace-folder=" + directory.path.string()});
    Trace::InitializeTrace(true, "test.log");
    auto const loop = Base::MakeShared<Base::ThreadLinux>();
    EXPECT_EQ(ErrorOfExecute(loop, "/nowhere", ENOENT).substr(0, 15), "Parent detected");
    auto const lines = ReadLines(directory.path / "test.log", " process_exec_linux(");
    EXPECT_EQ(lines.size(), 3U);
    std::string const origin = " process_exec_linux(" + std::to_string(getpid()) + ":";
    for (std::string const& line : lines) EXPECT_NE(line.find(origin), std::string::npos) << line;
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
