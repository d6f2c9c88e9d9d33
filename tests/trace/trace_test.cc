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
#include "trace/line_header.h"
#include "trace/sinks.h"
#include "trace/time_text.h"

TRACE_MODULE("trace_test");

namespace {

// A process configures the log once, so each test logs in a child and reads what the child wrote.
class TraceTest : public testing::Test {
 protected:
  // The lines of this module in the trace file.
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

TEST_F(TraceTest, ALineIsTheMessageAndFieldsRenderedByKind) {
  std::string const quoted = "a\"b";
  std::string const longText(100, 'x');
  std::wstring const wide(65, L'\u00e9');
  auto const lines = Log({}, [&] {
    int const* const none = nullptr;
    char const* const noText = nullptr;
    wchar_t const* const noWide = nullptr;
    Trace::TimePoint const time(std::chrono::milliseconds(1777829441042));
    TRACE_INFO("plain");
    TRACE_INFO("v", none, noText, noWide, quoted, time, Trace::As("c", 'c'), Trace::As("b", true),
               Trace::As("n", -5), Trace::As("d", 0.5), Trace::As("m", std::chrono::minutes(3)),
               Trace::As("p", reinterpret_cast<int const*>(0xABC)),
               Trace::As("buffer", Base::ByteBuffer::Zeroed(9)),
               Trace::As("err", std::runtime_error("why")),
               Trace::As("ok", Base::Maybe<Base::Exception>()), Trace::As("guid", Trace::Guid()));
    TRACE_INFO("v", Trace::As("cut", longText.c_str()), Trace::As("whole", longText),
               Trace::As("cutWide", wide.c_str()), Trace::As("wholeWide", wide));
  });
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(AfterHeader(lines[0]), "plain");
  EXPECT_EQ(AfterHeader(lines[1]),
            R"(v { none:0 noText:null noWide:null quoted:"a"b" time:"2026-05-03T17:30:41.042Z" )"
            R"(c:c b:true n:-5 d:0.5 m:"3m" p:0xabc buffer:9 err:"why" ok:null )"
            R"(guid:"00000000-0000-0000-0000-000000000000" })");
  std::string utf8;
  for (int i = 0; i < 65; ++i) utf8 += "\xc3\xa9";
  EXPECT_EQ(AfterHeader(lines[2]), "v { cut:\"" + longText.substr(0, 64) + "\" whole:\"" +
                                       longText + "\" cutWide:\"" + utf8.substr(2) +
                                       "\" wholeWide:\"" + utf8 + "\" }");
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

// For a thread that has not logged before.
TEST(LineHeaderTest, MillisecondsArePaddedOnTheRightFromTheSecondLineOn) {
  std::thread([] {
    for (std::string const milliseconds : {"042", "420", "420"}) {
      std::string text;
      Trace::AppendLineHeader(text, {.time = Trace::TimePoint(std::chrono::milliseconds(42)),
                                     .level = "VERBOSE",
                                     .module = "main",
                                     .pid = 4211,
                                     .threadId = 4213});
      EXPECT_EQ(text, "00:00:00." + milliseconds + "Z VERBOSE  main(4211:4213) - ");
    }
  }).join();
}

TEST_F(TraceTest, LinesOfManyThreadsAreWhole) {
  auto const lines = Log({}, [] {
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i) {
      writers.emplace_back([text = std::string(300, static_cast<char>('a' + i))] {
        for (int k = 0; k < 250; ++k) TRACE_INFO("line", text);
      });
    }
    // A child logs, whatever the writers are doing at the fork.
    for (int k = 0; k < 20; ++k) {
      // Killed: at a normal end, ThreadSanitizer would look for the parent's threads.
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

// Another user may have created any of these names in "/tmp/"; the log leaves their targets alone.
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
  std::error_code differentFileSystem;
  for (std::function<void()> const& create : std::vector<std::function<void()>>{
           [&] { std::filesystem::create_symlink(target, path); },
           [&] { std::filesystem::create_hard_link(target, path, differentFileSystem); },
           [&] { mkfifo(path.c_str(), 0600); }}) {
    create();
    EXPECT_EQ(log(), 0);
    std::filesystem::remove(path);
  }
  EXPECT_EQ(ReadFile(target), "precious");
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
