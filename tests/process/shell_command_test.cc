#include "process/shell_command.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "base/unique_fd.h"
#include "process/command_budget.h"
#include "tests/support/base/child.h"
#include "tests/support/base/descriptor_limit.h"
#include "tests/support/utilities/arguments/settings.h"

namespace {

using Process::CommandBudget;
using Process::RunInShell;
using Process::ShellResult;
using std::chrono::seconds;

// In a process of its own, which this changes for good.
TEST(ShellCommandTest, ACommandInheritsStandardStreamsAndNoSettingOfThisProcess) {
  int const status = RunInChild([] {
    int const inherited = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GT(fcntl(inherited, F_DUPFD, 100), 2) << "without close-on-exec";
    for (char const* const name : {"NOTIFY_SOCKET", "LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES",
                                   "KESTREL_SOCKET", "MY_KESTREL_", "LISTENER"}) {
      setenv(name, "x", 1);
    }
    for (int number = 1; number <= SIGRTMAX; ++number) {
      if (number != SIGCHLD) signal(number, SIG_IGN);
    }
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    // Descriptor 3 is the one with which `ls` reads the folder.
    std::string const command = R"(echo $(ls /proc/self/fd); grep '^Sig[BI]' /proc/self/status;
        env | grep 'NOTIFY_\|LISTEN\|KESTREL_' | sort; exit 3)";
    std::string const expected =
        "0 1 2 "
        "3\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\nLISTENER=x\nMY_KESTREL_=x\n";
    ShellResult result = RunInShell(command);
    EXPECT_EQ(result.output, expected);
    EXPECT_EQ(result.exitCode, 3);
    signal(SIGCHLD, SIG_IGN);
    result = RunInShell(command);
    EXPECT_EQ(result.output, expected);
    EXPECT_EQ(result.exitCode, 255);
  });
  EXPECT_EQ(status, 0);
}

TEST(ShellCommandTest, ABudgetStopsCommandsAndStoresTheFirstFailure) {
  TemporaryDirectory const directory;
  std::string const marker = directory.path / "marker";
  int const status = RunInChild([&] {
    SetArguments({"--command-timeout=0"});
    {
      CommandBudget budget(seconds(1));
      EXPECT_TRUE(RunInShell("sleep 1000").wasStopped);
      EXPECT_TRUE(RunInShell("exec >'" + marker + "'").wasStopped);
      EXPECT_FALSE(std::filesystem::exists(marker)) << "a command ran after the end of its budget";
      EXPECT_EQ(budget.GetFailure(), "The request took longer than 1 s");
      std::thread([] {
        EXPECT_EQ(CommandBudget::GetCurrent(), nullptr);
        EXPECT_EQ(RunInShell("exit 4").exitCode, 4) << "the budget of another thread";
      }).join();
      CommandBudget const unlimited(seconds(0));
      EXPECT_EQ(RunInShell("exit 5").exitCode, 5);
      EXPECT_EQ(unlimited.GetFailure(), "");
    }
    EXPECT_EQ(CommandBudget::GetCurrent(), nullptr);
    {
      CommandBudget budget(seconds(1000));
      ShellResult result;
      {
        DescriptorLimit const limit(GetNextDescriptor(1));
        result = RunInShell("true");
      }
      EXPECT_EQ(result.errorCode, EMFILE);
      EXPECT_TRUE(RunInShell("exec yes").wasStopped);
      EXPECT_EQ(budget.GetFailure(),
                "A command could not be started: Too many open files (Err 24)");
    }
    SetArguments({"--command-timeout=1"});
    CommandBudget budget(seconds(1000));
    EXPECT_TRUE(RunInShell("sleep 1001").wasStopped);
    EXPECT_EQ(budget.GetFailure(), "A command took longer than 1 s");
    CommandBudget const inner(seconds(1000));
    EXPECT_TRUE(RunInShell("exec yes").wasStopped);
    EXPECT_EQ(inner.GetFailure(), "A command printed more than 1048576 bytes");
  });
  EXPECT_EQ(status, 0);
}

// This process traces the shell of its child: the child can reap it only once this process has.
TEST(ShellCommandTest, AShellThatIsSlowToDieIsReapedByALaterCommand) {
  TemporaryDirectory const directory;
  std::string const pidFile = (directory.path / "pid").string();
  std::string const toShell = (directory.path / "go").string();
  std::string const toChild = (directory.path / "released").string();
  for (auto const& name : {pidFile, toShell, toChild}) ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
  pid_t const child = fork();
  if (child == 0) {
    SetArguments({"--command-timeout=0"});
    ShellResult const result =
        RunInShell("echo $$ >'" + pidFile + "'; read line <'" + toShell + "'; exec yes");
    EXPECT_TRUE(result.wasStopped);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "the shell is not reaped yet";
    std::ofstream(pidFile) << "returned\n";
    EXPECT_EQ(ReadFile(toChild), "released\n");
    EXPECT_EQ(RunInShell("exit 6").exitCode, 6);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a zombie";
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  pid_t const shell = std::stoi(ReadFile(pidFile));
  if (ptrace(PTRACE_SEIZE, shell, nullptr, nullptr) != 0) {
    kill(-shell, SIGKILL);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    GTEST_SKIP() << "this process may not trace another one";
  }
  std::ofstream(toShell) << "go\n";
  // Signals may stop the shell before the kill ends it.
  EXPECT_EQ(ReadFile(pidFile), "returned\n");
  int status = -1;
  EXPECT_EQ(waitpid(shell, &status, __WALL), shell);
  EXPECT_TRUE(WIFSIGNALED(status));
  std::ofstream(toChild) << "released\n";
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
