#include "trace/trace.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
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
#include "tests/support/trace/log_socket.h"
#include "tests/support/utilities/arguments/settings.h"
#include "trace/guid.h"
#include "trace/line_header.h"
#include "trace/sinks.h"
#include "trace/time_text.h"

TRACE_MODULE("trace_test");

namespace {

constexpr std::size_t lineLength = 100;

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
  auto const lines = Log({"--flag", "word"}, [&] {
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
    Trace::Format<Trace::levelWarning>("trace_test", "%s", std::string(600, 'x').c_str());
  });
  ASSERT_EQ(lines.size(), 4U);
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
  EXPECT_EQ(AfterHeader(lines[3]), std::string(511, 'x')) << "a formatted message is cut";
  // The log of the settings separates its fields with commas.
  std::string const log = ReadFile(directory.path / "test.log");
  EXPECT_NE(log.find(R"(Found flag { argument:"--flag", name:"flag", commandLine:true })"),
            std::string::npos);
  EXPECT_NE(log.find(R"(Found field { argument:"word", commandLine:true })"), std::string::npos);
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
    Trace::IdText const ids = Trace::MakeIdText(4211, 4213);
    for (std::string const milliseconds : {"042", "420", "420"}) {
      std::string text;
      Trace::AppendLineHeader(text, {.time = Trace::TimePoint(std::chrono::milliseconds(42)),
                                     .level = "VERBOSE",
                                     .module = "main",
                                     .ids = ids.GetText()});
      EXPECT_EQ(text, "00:00:00." + milliseconds + "Z VERBOSE  main(4211:4213) - ");
    }
  }).join();
}

// The size allows one rotation, so no line may be missing.
TEST_F(TraceTest, LinesOfManyThreadsAreWholeInBothFiles) {
  auto lines = Log({"--trace-file-max-size=200000"}, [] {
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
  auto const older = ReadLines(directory.path / "test.log.1", " trace_test(");
  EXPECT_FALSE(lines.empty());
  EXPECT_FALSE(older.empty());
  lines.insert(lines.end(), older.begin(), older.end());
  EXPECT_EQ(lines.size(), 1020U);
  std::regex const format(R"(\S+ INFO     trace_test\((\d+):\d+\) - )"
                          R"((line \{ text:"(.)\3{299}" \}|forked \{ pid:\1 \}))");
  for (std::string const& line : lines) EXPECT_TRUE(std::regex_match(line, format)) << line;
}

// The file stays open where the name changes nothing about its path.
TEST_F(TraceTest, TheProgramsFileNameCountsAfterAnEarlyLine) {
  std::string const given = directory.path / "given";
  for (std::vector<std::string> const& arguments :
       std::vector<std::vector<std::string>>{{"--trace-folder=" + directory.path.string()},
                                             {"--trace-folder=/tmp/", "--trace-file=" + given}}) {
    EXPECT_EQ(RunInChild([&] {
                SetArguments(arguments);
                TRACE_INFO("early");
                Trace::InitializeTrace(true, "program.log");
                TRACE_INFO("late");
              }),
              0);
  }
  EXPECT_EQ(ReadLines(directory.path / "trace_test.log", "early").size(), 1U);
  EXPECT_EQ(ReadLines(directory.path / "program.log", "late").size(), 1U);
  EXPECT_EQ(ReadLines(given, "early").size(), 1U);
  EXPECT_EQ(ReadLines(given, "late").size(), 1U);
}

// Each line has `lineLength` bytes and ends with its number.
void WriteNumbered(int count) {
  std::string const ids = std::to_string(getpid()) + ":" + std::to_string(gettid());
  std::size_t const header = ("09:05:33.042Z INFO     trace_test(" + ids + ") - \n").size();
  for (int i = 0; i < count; ++i) {
    std::string const number = " " + std::to_string(i);
    std::string const padding(lineLength - header - number.size(), 'x');
    Trace::Format<Trace::levelInfo>("trace_test", "%s%s", padding.c_str(), number.c_str());
  }
}

TEST_F(TraceTest, AFullFileIsRenamedBetweenTwoLines) {
  std::filesystem::path const file = directory.path / "test.log";
  std::filesystem::path const old = directory.path / "test.log.1";
  Log({"--trace-file-max-size=1000", "--trace-level=3"}, [&] {
    std::filesystem::resize_file(file, 0);  // as by a tool that has copied it
    WriteNumbered(25);
  });
  EXPECT_EQ(std::filesystem::file_size(old), 1000U);
  ASSERT_EQ(ReadLines(file).size(), 5U);
  EXPECT_TRUE(ReadLines(file)[0].ends_with(" 20"));
  EXPECT_TRUE(ReadLines(old)[0].ends_with(" 10"));

  // A file that others have renamed or replaced is not renamed again.
  Log({"--trace-file-max-size=1000", "--trace-level=3"}, [&] {
    TRACE_INFO("mine");
    std::filesystem::rename(file, directory.path / "moved");
    std::ofstream(file) << "theirs\n";
    std::ofstream(old) << "older\n";
    WriteNumbered(10);
  });
  EXPECT_EQ(ReadFile(old), "older\n");
  EXPECT_TRUE(ReadFile(file).starts_with("theirs\n"));
  EXPECT_TRUE(ReadFile(file).ends_with(" 9\n"));

  // A folder in the place of the older file: nothing is lost, and one line tells it.
  std::filesystem::remove(old);
  std::filesystem::create_directories(old / "folder");
  auto const lines = Log({"--trace-file-max-size=1000", "--trace-level=2"}, [] {
    for (int i = 0; i < 100; ++i) TRACE_WARNING("on and on");
  });
  EXPECT_EQ(lines.size(), 100U);
  auto const reports = ReadLines(file, "Failed to rotate trace file");
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_TRUE(reports[0].ends_with(" - Failed to rotate trace file { error:21 }"));
}

TEST_F(TraceTest, ALimitOnFileSizesEndsNoProcess) {
  auto const lines = Log({"--trace-level=2"}, [] {
    rlimit const limit{.rlim_cur = 4096, .rlim_max = 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    for (int i = 0; i < 200; ++i) TRACE_WARNING("line", i);
  });
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(lines.back().ends_with("{ i:199 }"));
}

// The folders are the default one, one of the user's group and one of everybody. Another user may
// have created any of these names there; the log leaves their targets alone.
TEST_F(TraceTest, AFolderThatOthersCanWriteToYieldsNoOthersFile) {
  std::string const name = "ktclientd-test-" + std::to_string(getpid()) + ".log";
  std::filesystem::path const target = directory.path / "target";
  std::ofstream(target) << "precious";
  auto const log = [&](std::vector<std::string> const& arguments) {
    EXPECT_EQ(RunInChild([&] {
                SetArguments(arguments);
                Trace::InitializeTrace(true, name.c_str());
              }),
              0);
  };
  std::string const group = directory.path / "group";
  std::string const all = directory.path / "all";
  mkdir(group.c_str(), 0700);
  chmod(group.c_str(), 0770);
  mkdir(all.c_str(), 0700);
  chmod(all.c_str(), 0707);
  struct {
    std::string folder;
    std::vector<std::string> arguments;
  } const folders[] = {{"/tmp", {}},
                       {group, {"--trace-folder=" + group}},
                       {all, {"--trace-file=" + all + "/" + name}}};
  for (auto const& [folder, arguments] : folders) {
    std::filesystem::path const path = std::filesystem::path(folder) / name;
    std::error_code differentFileSystem;
    for (std::function<void()> const& create : std::vector<std::function<void()>>{
             [&] { std::filesystem::create_symlink(target, path); },
             [&] { std::filesystem::create_hard_link(target, path, differentFileSystem); },
             [&] { mkfifo(path.c_str(), 0600); }}) {
      create();
      log(arguments);
      std::filesystem::remove(path);
    }
    EXPECT_EQ(ReadFile(target), "precious") << folder;
    log(arguments);
    EXPECT_NE(ReadFile(path).find("Process ["), std::string::npos) << folder;
    std::filesystem::remove(path);
  }
  std::filesystem::path const link = directory.path / "link";
  std::filesystem::create_symlink(target, link);
  log({"--trace-file=" + link.string()});
  EXPECT_NE(ReadFile(target).find("Process ["), std::string::npos) << "the user's own folder";
}

TEST_F(TraceTest, ACrashReportSurvivesTheNextStart) {
  std::filesystem::path const file = directory.path / "test.log";
  std::filesystem::path const kept = directory.path / "test.log.crash";
  std::filesystem::path const target = directory.path / "target";
  std::string const report =
      "09:05:33.042Z FATAL    crash_handler(1:1) - Received fatal signal { signal:\"SIGSEGV\" }\n";
  std::ofstream(kept) << "an older report";
  std::ofstream(file) << "before\n" << report;
  EXPECT_EQ(Log({}, [] { TRACE_INFO("next start"); }).size(), 1U);
  EXPECT_EQ(ReadFile(kept), "before\n" + report);

  std::ofstream(file, std::ios::app) << report << "09:05:33.042Z INFO     main(1:1) - On\n";
  Log({}, [] {});
  EXPECT_EQ(ReadFile(kept), "before\n" + report) << "the report is not at the end";

  std::ofstream(target) << report;
  std::filesystem::remove(file);
  std::filesystem::create_symlink(target, file);
  Log({}, [] {});
  EXPECT_EQ(ReadFile(kept), "before\n" + report) << "a link is not renamed";
}

// The reader has stopped, as a service under SIGSTOP has. Then it reads again.
TEST_F(TraceTest, SyslogDropsLinesOnlyWhileNobodyReads) {
  LogSocket const log;
  if (RunInChild([&] { log.MountInChild(); }) != 0) GTEST_SKIP() << "no mount namespaces here";
  std::string const tag = std::string(program_invocation_short_name) + ": ";
  Log({"--trace-syslog", "--trace-level=2"}, [&] {
    log.MountInChild();
    int const count = 1000;
    auto const start = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i) TRACE_WARNING("line", i);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30))
        << "not 100 ms for each line";
    auto const before = log.ReceiveAll();
    ASSERT_GT(before.size(), 0U);
    for (std::size_t i = 0; i < before.size(); ++i) {
      EXPECT_TRUE(before[i].starts_with("<12>" + tag)) << before[i];
      EXPECT_TRUE(before[i].ends_with(" - line { i:" + std::to_string(i) + " }")) << before[i];
    }

    TRACE_ERROR("room");
    EXPECT_TRUE(log.Receive().ends_with(
        " - Lines were lost { lines:" + std::to_string(count - before.size()) + " }"));
    EXPECT_TRUE(log.Receive().starts_with("<11>" + tag));

    // A burst loses no line when the reader gets its time; some try of several must succeed.
    std::size_t received = 0;
    for (int k = 0; k < 5 && received != count; ++k) {
      log.ReceiveAll();
      received = 0;
      std::atomic<bool> isDone = false;
      std::thread reader([&] {
        while (!log.Receive(0).ends_with(" - last")) ++received;
        isDone = true;
      });
      for (int i = 0; i < count; ++i) TRACE_WARNING("burst", i);
      while (!isDone) TRACE_WARNING("last");
      reader.join();
    }
    EXPECT_EQ(received, count);
  });
  EXPECT_GT(ReadLines(directory.path / "test.log", "Lines were lost").size(), 0U);
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
