#include "trace/trace.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/buffer.h"
#include "base/maybe.h"
#include "tests/support/base/child.h"
#include "tests/support/utilities/arguments/settings.h"
#include "trace/guid.h"
#include "trace/sinks.h"
#include "trace/time_text.h"

TRACE_MODULE("trace_test");

namespace {

// The log is configured once a process: every test logs in a child and reads what that wrote.
class TraceTest : public testing::Test {
 protected:
  // Returns the file's lines, without those of the start.
  std::vector<std::string> Log(std::vector<std::string> arguments, std::function<void()> write,
                               char const* logFileName = "test.log") {
    arguments.insert(arguments.begin(),
                     {"--trace-folder=" + directory.path.string(), "--trace-console"});
    int const status = RunInChild([&] {
      Redirect("out", STDOUT_FILENO);
      Redirect("err", STDERR_FILENO);
      SetArguments(arguments);
      Trace::InitializeTrace(true, logFileName);
      write();
    });
    EXPECT_EQ(status, 0) << ReadFile(directory.path / "err");
    return ReadLines(directory.path / "test.log", " trace_test(");
  }

  void Redirect(char const* name, int fd) const {
    int const file = open((directory.path / name).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(file, fd);
    close(file);
  }

  static std::string AfterHeader(std::string const& line) {
    return line.substr(line.find(" - ") + 3);
  }

  TemporaryDirectory directory;
};

TEST_F(TraceTest, ALineIsHeaderMessageAndFields) {
  auto const lines = Log({}, [] { TRACE_ERROR("Message", Trace::As("key", 1)); });
  ASSERT_EQ(lines.size(), 1U);
  std::regex const format(
      R"(\d\d:\d\d:\d\d\.\d{3}Z ERROR    trace_test\(\d+:\d+\) - Message \{ key:1 \})");
  EXPECT_TRUE(std::regex_match(lines[0], format)) << lines[0];
  struct stat status {};
  ASSERT_EQ(stat((directory.path / "test.log").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(TraceTest, ValuesAreRenderedByKind) {
  auto const lines = Log({}, [] {
    int const* const none = nullptr;
    char const* const noText = nullptr;
    std::string const longText(100, 'x');
    std::string const quoted = "a\"b";
    auto const time =
        std::chrono::system_clock::time_point(std::chrono::milliseconds(1777829441042));
    TRACE_INFO("plain");
    TRACE_INFO("v", none, noText, quoted, Trace::As("c", 'c'), Trace::As("b", true),
               Trace::As("n", -5), Trace::As("d", 0.5), Trace::As("m", std::chrono::minutes(3)));
    TRACE_INFO("v", time, Trace::As("p", reinterpret_cast<int const*>(0xABC)),
               Trace::As("buffer", Base::ByteBuffer::Zeroed(9)),
               Trace::As("err", std::runtime_error("why")),
               Trace::As("ok", Base::Maybe<Base::Exception>()));
    TRACE_INFO("v", Trace::As("cut", longText.c_str()), Trace::As("whole", longText));
    std::wstring const wide(65, L'\u00e9');
    wchar_t const* const noWide = nullptr;
    TRACE_INFO("v", noWide, Trace::As("cut", wide.c_str()), Trace::As("whole", wide),
               Trace::As("guid", Trace::Guid()));
  });
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(AfterHeader(lines[0]), "plain");
  EXPECT_EQ(AfterHeader(lines[1]),
            R"(v { none:0 noText:null quoted:"a"b" c:c b:true n:-5 d:0.5 m:"3m" })");
  EXPECT_EQ(AfterHeader(lines[2]),
            "v { time:\"2026-05-03T17:30:41.042Z\" p:0xabc buffer:9 "
            "err:\"why\" ok:null }");
  EXPECT_EQ(AfterHeader(lines[3]),
            "v { cut:\"" + std::string(64, 'x') + "\" whole:\"" + std::string(100, 'x') + "\" }");
  std::string whole;
  for (int i = 0; i < 65; ++i) whole += "\xc3\xa9";
  EXPECT_EQ(AfterHeader(lines[4]), "v { noWide:null cut:\"" + whole.substr(2) + "\" whole:\"" +
                                       whole +
                                       "\" guid:\"00000000-0000-0000-0000-000000000000\" }");
}

TEST_F(TraceTest, TheLevelChoosesLinesAndStreams) {
  int evaluated = 0;
  auto const lines = Log({"--trace-level=3", "--trace-console=false"}, [&] {
    TRACE_VERBOSE("verbose", ++evaluated);
    TRACE_INFO("info");
    TRACE_FATAL("fatal");
    EXPECT_EQ(evaluated, 0);
  });
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(ReadFile(directory.path / "err"), lines[1] + "\n");
  EXPECT_TRUE(ReadFile(directory.path / "out").ends_with(lines[0] + "\n"));
}

// 42 ms read 042 on a thread's first line and 420 on the later ones.
TEST_F(TraceTest, MillisecondsArePaddedOnTheRightFromTheSecondLineOn) {
  using Clock = std::chrono::system_clock;
  unsigned milliseconds = 0;
  auto const lines = Log({"--trace-level=3"}, [&] {
    for (;;) {
      milliseconds = Trace::GetMilliseconds(Clock::now());
      if (milliseconds == 0 || milliseconds >= 100) continue;
      TRACE_INFO("now", milliseconds);
      if (Trace::GetMilliseconds(Clock::now()) == milliseconds) break;
    }
  });
  ASSERT_FALSE(lines.empty());
  std::string number = lines.back().substr(lines.back().find("milliseconds:") + 13);
  number.resize(number.find(' '));
  EXPECT_EQ(lines.back().substr(9, 3), number + std::string(3 - number.size(), '0'));
}

TEST_F(TraceTest, LinesOfManyThreadsAreWhole) {
  auto const lines = Log({}, [] {
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i) {
      writers.emplace_back([text = std::string(300, static_cast<char>('a' + i))] {
        for (int k = 0; k < 250; ++k) TRACE_INFO("line", text);
      });
    }
    // What a thread may be doing when another one forks must not reach the child.
    for (int k = 0; k < 20; ++k) {
      // Ended hard: a thread checker would look for the parent's threads at a normal end.
      int const status = RunInChild([] {
        TRACE_INFO("forked", Trace::As("pid", getpid()));
        raise(SIGKILL);
      });
      EXPECT_EQ(status, SIGKILL);
    }
    for (std::thread& writer : writers) writer.join();
  });
  EXPECT_EQ(lines.size(), 1020U);
  std::regex const format(R"(\S+ INFO     trace_test\((\d+):\d+\) - )"
                          R"((line \{ text:"(.)\3{299}" \}|forked \{ pid:\1 \}))");
  for (std::string const& line : lines) EXPECT_TRUE(std::regex_match(line, format)) << line;
}

TEST_F(TraceTest, FormattedMessagesAreCut) {
  auto const lines = Log({"--trace-level=5"}, [] {
    Trace::Format<Trace::levelDebug>("trace_test", "%s", std::string(600, 'x').c_str());
    Trace::Format<Trace::levelWarning>("trace_test", "%d", 7);
  });
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(AfterHeader(lines[0]), std::string(511, 'x'));
  EXPECT_EQ(AfterHeader(lines[1]), "7");
}

TEST_F(TraceTest, SettingsAreLoggedWithCommas) {
  Log({"--flag", "word"}, [] {});
  std::string const log = ReadFile(directory.path / "test.log");
  EXPECT_NE(log.find(R"(Found flag { argument:"--flag", name:"flag", commandLine:true })"),
            std::string::npos);
  EXPECT_NE(log.find(R"(Found field { argument:"word", commandLine:true })"), std::string::npos);
}

// Each of these names in "/tmp/" may be somebody else's doing; what it leads to stays as it is.
TEST_F(TraceTest, TheDefaultFolderYieldsNoOthersFile) {
  std::string const name = "ktclientd-test-" + std::to_string(getpid()) + ".log";
  std::filesystem::path const path = "/tmp/" + name;
  std::filesystem::path const target = directory.path / "target";
  auto const log = [&] {
    return RunInChild([&] {
      SetArguments({});
      Trace::InitializeTrace(true, name.c_str());
    });
  };
  std::ofstream(target) << "precious";
  std::filesystem::create_symlink(target, path);
  EXPECT_EQ(log(), 0);
  std::filesystem::remove(path);
  std::error_code differentFileSystem;
  std::filesystem::create_hard_link(target, path, differentFileSystem);
  EXPECT_EQ(log(), 0);
  std::filesystem::remove(path);
  EXPECT_EQ(ReadFile(target), "precious");
  mkfifo(path.c_str(), 0600);
  EXPECT_EQ(log(), 0);
  std::filesystem::remove(path);
  EXPECT_EQ(log(), 0);
  EXPECT_NE(ReadFile(path).find("Process ["), std::string::npos);
  std::filesystem::remove(path);
}

TEST(TracePathTest, IsBuiltFromTheSettings) {
  auto const pathFor = [](std::vector<std::string> const& arguments, std::string const& name) {
    SetArguments(arguments);
    return Trace::GetTraceFilePath(name);
  };
  EXPECT_EQ(pathFor({}, "a.log"), "/tmp/a.log");
  EXPECT_EQ(pathFor({"--trace-folder=/x"}, "a.log"), "/x/a.log");
  EXPECT_EQ(pathFor({"--trace-folder="}, "a.log"), "a.log");
  EXPECT_EQ(pathFor({"--trace-folder=/x"}, ""), "/x/trace_test.log");
  EXPECT_EQ(pathFor({"--trace-folder=/x", "--logging-file=b"}, "a.log"), "b");
  EXPECT_EQ(pathFor({"--logging-file=b", "--trace-file=c"}, "a.log"), "c");
  std::regex const prefixed("/tmp/\\d{8}_\\d{6}_" + std::to_string(getpid()) + "_a\\.log");
  EXPECT_TRUE(std::regex_match(pathFor({"--trace-file-prefix=1"}, "a.log"), prefixed));
}

}  // namespace
