#include "process/process_exec_linux.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>
#include <vector>

#include "process/pipe.h"
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

// Returns the text of what it throws.
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

// Gives a program all of its input, and then its end.
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
    // What this process was started with is not what its programs are to be judged by.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    _descriptors = CountDescriptors();
  }

  void TearDown() override {
    OnLoop([] {});  // closes what was let go of
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

  // Reads to the end; the event is all that came.
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

  // What the program prints; its exit has been seen then.
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

// More than a pipe holds: the program has to wait for its pipes, and the loop must not.
TEST_F(ProcessExecTest, AProgramGivesBackAllThatItIsGiven) {
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

TEST_F(ProcessExecTest, AProgramFindsItsArgumentsAndThreeDescriptors) {
  Base::UniqueFd const other(open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(GetOutput(Execute("printf", {"%s|", "a b", "", "$HOME"})), "ok a b||$HOME|;");
  // The fourth is the one by which it looks.
  EXPECT_EQ(GetOutput(Execute("ls", {"/proc/self/fd"})), "ok 0\n1\n2\n3\n;");
}

TEST_F(ProcessExecTest, AProgramFindsNoSignalBlockedOrIgnored) {
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  sigdelset(&blocked, SIGUSR1);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  // The loop's fixture ignores SIGPIPE.
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
  std::string const cut("true\0", 5);
  EXPECT_EQ(ErrorOfExecute(loop, cut, EINVAL), "Invalid Argument - Invalid argument (Err 22)");
  EXPECT_FALSE(HasChildren());
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

TEST_F(ProcessExecTest, AnExitIsReportedToAllAndKept) {
  auto const process = Shell("read line; exit 3");
  NoteExit(process);
  process->WaitForExit({});
  NoteExit(process);
  CloseInput(process);
  EXPECT_EQ(events.Take(2), "exited;exited;");
  EXPECT_EQ(process->GetExitCode(), 3);
  WaitForExit(process);
  EXPECT_EQ(process->GetExitCode(), 3);
}

// Nothing else wakes the loop.
TEST_F(ProcessExecTest, AnExitIsReportedHoweverItComes) {
  auto const early = Shell("exit 5");
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(early->GetPid()), &info, WEXITED | WNOWAIT), 0);
  WaitForExit(early);
  EXPECT_EQ(early->GetExitCode(), 5);

  auto const killed = Execute("cat", {});
  NoteExit(killed);
  OnLoop([] {});  // is waited for
  kill(killed->GetPid(), SIGKILL);
  EXPECT_EQ(events.Take(), "exited;");
  EXPECT_TRUE(killed->HasExited());
  EXPECT_EQ(killed->GetExitCode(), 0);

  auto const killedEarly = Shell("kill -9 $$");
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(killedEarly->GetPid()), &info, WEXITED | WNOWAIT), 0);
  WaitForExit(killedEarly);
}

TEST_F(ProcessExecTest, AnExitIsSeenWithoutADescriptorToWatchItBy) {
  auto const process = Execute("cat", {});
  {
    DescriptorLimit const limit(GetNextDescriptor());
    NoteExit(process);
    OnLoop([] {});
  }
  process->Close();
  EXPECT_EQ(events.Take(), "exited;");
}

TEST_F(ProcessExecTest, OutputOutlivesTheProgram) {
  auto const process = Shell("exec 3<&0; (cat <&3; echo late) & echo early");
  WaitForExit(process);
  EXPECT_EQ(process->GetExitCode(), 0);
  ReadAll(process->GetOutputStream());
  CloseInput(process);
  EXPECT_EQ(events.Take(), "ok early\nlate\n;");
}

TEST_F(ProcessExecTest, CloseTakesTheStreamsAway) {
  auto const process = Shell("cat; echo done >&2");
  ReadAll(process->GetOutputStream());
  auto const error = process->GetErrorStream();
  process->Close();
  EXPECT_EQ(events.Take(), "File closed ;");
  WaitForExit(process);
  std::vector<std::string> texts;
  for (auto const& get : std::vector<std::function<void()>>{[&] { process->GetInputStream(); },
                                                            [&] { process->GetOutputStream(); },
                                                            [&] { process->GetErrorStream(); }}) {
    texts.push_back(ErrorOf(get));
  }
  std::string const end = " stream unavailable. - Unknown error -1 (Err -1)";
  EXPECT_EQ(texts, (std::vector<std::string>{"Input" + end, "Output" + end, "Error" + end}));
  EXPECT_EQ(ErrorOf([&] { error->Read(NoteRead()); }), "Read Stream Closed");
  process->Close();
}

// The fixture finds what stays. The program ends because its input does.
TEST_F(ProcessExecTest, NothingOutlivesTheLoop) {
  auto process = Execute("cat", {});
  int const pid = process->GetPid();
  process->WaitForExit(Base::MakeCallback([process] { FAIL() << "nobody looks"; }));
  ReadAll(process->GetOutputStream());
  process.Reset();
  loop->Stop();
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
  loop->Start();
}

TEST_F(ProcessExecTest, AnExitIsReportedByALoopThatRunsAgain) {
  auto const process = Execute("cat", {});
  NoteExit(process);
  OnLoop([] {});
  loop->Stop();
  loop->Start();
  CloseInput(process);
  WaitForExit(process);
}

TEST_F(ProcessExecTest, ManyRunAtOnce) {
  constexpr int count = 200;
  std::vector<Base::Shared<ProcessExec>> processes;
  std::string sent;
  for (int i = 0; i < count; ++i) {
    processes.push_back(Execute("cat", {}));
    NoteExit(processes.back());
  }
  for (int i = 0; i < count; ++i) {
    auto const& process = processes[static_cast<std::size_t>(i)];
    OnLoop([&] { WriteAll(process->GetInputStream(), std::to_string(i)); });
    ReadAll(process->GetOutputStream());
  }
  std::string const seen = ";" + events.Take(2 * count);
  for (int i = 0; i < count; ++i) {
    EXPECT_NE(seen.find(";ok " + std::to_string(i) + ";"), std::string::npos) << i;
    EXPECT_TRUE(processes[static_cast<std::size_t>(i)]->HasExited());
  }
}

// Each lists the descriptors that it got, while the others' pipes come and go.
TEST_F(ProcessExecTest, ProgramsStartedAtATimeDoNotGetEachOthersPipes) {
  std::atomic<bool> isDone{false};
  std::thread other([&] {
    while (!isDone) {
      FILE* const pipe = popen("exec ls /proc/self/fd", "re");  // NOLINT(cert-env33-c): its fork
      ASSERT_NE(pipe, nullptr);
      std::array<char, 256> output{};
      output[fread(output.data(), 1, output.size() - 1, pipe)] = '\0';
      EXPECT_EQ(pclose(pipe), 0);
      EXPECT_STREQ(output.data(), "0\n1\n2\n3\n");
    }
  });
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(GetOutput(Execute("ls", {"/proc/self/fd"})), "ok 0\n1\n2\n3\n;");
  }
  isDone = true;
  other.join();
}

// What a child does between its fork and its exec, when a test wants it to do something there.
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
};

TEST_F(ForkedChildTest, TheWaitForItsExecSleeps) {
  Process::Pipe release;
  ASSERT_EQ(Process::MakePipe(release), 0);
  inForkedChild = [&] {
    close(release.writeEnd.Get());  // so that it does not outlive a test that fails
    char byte = 0;
    static_cast<void>(!read(release.readEnd.Get(), &byte, 1));
  };
  std::atomic<pid_t> starter{0};
  std::thread thread([&] {
    starter = gettid();
    auto const process = Execute("true", {});
    WaitForExit(process);
    EXPECT_EQ(process->GetExitCode(), 0);
  });
  // The number of the system call that it sleeps in; it says "running" of one that does not sleep.
  auto const isReading = [&] {
    std::ifstream file("/proc/self/task/" + std::to_string(starter) + "/syscall");
    std::string number;
    file >> number;
    return number == std::to_string(SYS_read);
  };
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!isReading() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_TRUE(isReading());
  EXPECT_EQ(write(release.writeEnd.Get(), "x", 1), 1);
  thread.join();
}

TEST_F(ForkedChildTest, ASignalBeforeItsExecDoesNotRunOurHandler) {
  Process::Pipe handled;
  ASSERT_EQ(Process::MakePipe(handled), 0);
  static int handledFd = 0;
  handledFd = handled.writeEnd.Get();
  signal(SIGWINCH, [](int) { static_cast<void>(!write(handledFd, "x", 1)); });
  inForkedChild = [] { raise(SIGWINCH); };
  WaitForExit(Execute("true", {}));
  signal(SIGWINCH, SIG_DFL);
  handled.writeEnd.Reset();
  char byte = 0;
  EXPECT_EQ(read(handled.readEnd.Get(), &byte, 1), 0);
}

// In a process of its own, which prints nothing: it says by its status how it went.
TEST(ClosedStreamsTest, AProgramGetsItsPipesThereToo) {
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
    });
    EXPECT_EQ(status, 0) << closed[0];
  }
}

// The last pipe can be made, but there is no other number for its end at 0.
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

// Logs as a process of its own, for the log is configured once in one.
[[noreturn]] void LogAFailedExec() {
  {
    TemporaryDirectory const directory;
    SetArguments({"--trace-folder=" + directory.path.string()});
    Trace::InitializeTrace(true, "test.log");
    auto const loop = Base::MakeShared<Base::ThreadLinux>();
    EXPECT_EQ(ErrorOfExecute(loop, "/nowhere", ENOENT).substr(0, 15), "Parent detected");
    std::string const origin = " process_exec_linux(" + std::to_string(getpid()) + ":";
    std::string messages;
    for (std::string const& line : ReadLines(directory.path / "test.log", " process_exec_linux(")) {
      EXPECT_NE(line.find(origin), std::string::npos) << line;
      messages += line.substr(line.find(" - ") + 3) + "\n";
    }
    EXPECT_EQ(messages,
              "Attempting to execute process { executableFilename:\"/nowhere\" }\n"
              "Failed to exec process { error:2 }\n"
              "Parent detected that child process exec failed { childError:2 }\n");
  }
  exit(testing::Test::HasFailure() ? 1 : 0);
}

// The child logs nothing: its line is the parent's, and there once.
TEST(ProcessLogTest, AFailedExecIsLoggedByTheParent) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(LogAFailedExec(), testing::ExitedWithCode(0), "");
}

}  // namespace
