#include "utilities/utilities.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace {

TEST(ExecuteCommandTest, AppendsTheWholeOutputUnchangedOrNothing) {
  std::string output = "before";
  EXPECT_FALSE(ExecuteCommand("exec yes", output)) << "it prints too much";
  EXPECT_EQ(ExecuteCommandOrDefault("exec yes", "default"), "default");
  EXPECT_TRUE(ExecuteCommand("printf ' \\n%0300d\\000 \\n' 7; echo unseen >/dev/null", output));
  EXPECT_EQ(output, "before \n" + std::string(299, '0') + "7" + std::string(1, '\0') + " \n");
}

TEST(ExecuteCommandTest, ACommandThatRunsAndFailsCountsAsSuccess) {
  std::string output;
  EXPECT_TRUE(ExecuteCommand("echo one; exit 3", output));
  EXPECT_TRUE(ExecuteCommand("echo two; kill -KILL $$", output));
  EXPECT_TRUE(ExecuteCommand("/nonexistent 2>/dev/null", output));
  EXPECT_EQ(output, "one\ntwo\n");
  EXPECT_EQ(ExecuteCommandOrDefault("false", "default"), "");
}

TEST(ReadFileTest, ReturnsAllBytesOrNothing) {
  std::string const name = testing::TempDir() + "utilities_test." + std::to_string(getpid());
  std::string const bytes("\0\r\n\xFF", 4);
  std::string output;
  ASSERT_TRUE(ExecuteCommand("printf '\\000\\r\\n\\377' >\"" + name + "\"", output));
  EXPECT_EQ(ReadFile(name).Get(), bytes);
  unlink(name.c_str());
  EXPECT_FALSE(ReadFile(name));
  EXPECT_FALSE(ReadFile("/proc/self"));
}

class TimeTextTest : public testing::Test {
 protected:
  static Trace::TimePoint At(std::int64_t seconds) {
    return Trace::TimePoint(std::chrono::seconds(seconds));
  }

  std::string const format = "%Y-%m-%dT%H:%M:%SZ";
};

TEST_F(TimeTextTest, ATimeReadsAsItWasWritten) {
  for (std::int64_t const seconds :
       {std::int64_t{0}, std::int64_t{-1}, std::int64_t{951782400}, std::int64_t{4102444800}}) {
    std::string const text = FormatTime(At(seconds), format).Get();
    EXPECT_EQ(ParseTime(text, format).Get(), At(seconds)) << text;
  }
  EXPECT_EQ(FormatTime(At(951782400), format).Get(), "2000-02-29T00:00:00Z");
  EXPECT_EQ(FormatTime(At(0) - std::chrono::nanoseconds(1), format).Get(), "1969-12-31T23:59:59Z");
  EXPECT_EQ(FormatTime(Trace::TimePoint::min(), "%Y").Get(), "1677");
  EXPECT_EQ(ParseTime("07:30", "%H:%M").Get(), At(27000));
}

TEST_F(TimeTextTest, OffsetsCountAndTheLocalZoneDoesNot) {
  setenv("TZ", "XYZ-5", 1);
  tzset();
  for (std::int64_t const seconds : {std::int64_t{951782400}, std::int64_t{-1}}) {
    std::string const text = std::to_string(seconds);
    EXPECT_EQ(FormatTime(At(seconds), "%s").Get(), text);
    EXPECT_EQ(FormatTime(At(seconds), "%%s %10s").Get(), "%s " + text);
    EXPECT_EQ(ParseTime(text, "%s").Get(), At(seconds));
  }
  EXPECT_EQ(FormatTime(At(951782400), "%FT%T%z").Get(), "2000-02-29T00:00:00+0000");
  EXPECT_EQ(ParseTime("2000-02-29T01:30:00 +0130", "%FT%T %z").Get(), At(951782400));
  EXPECT_EQ(ParseTime("2000-02-28T16:00:00 -0800", "%FT%T %z").Get(), At(951782400));
  EXPECT_FALSE(ParseTime("18446744073709551621", "%s"));
  EXPECT_FALSE(ParseTime("7 ", "%s"));
  EXPECT_FALSE(ParseTime("7 +0100", "%s %z"));
  unsetenv("TZ");
  tzset();
}

TEST_F(TimeTextTest, TextsInPartAndTimesOutOfRangeAreRefused) {
  for (char const* const text :
       {"", "2000-02-29T00:00:00", "2000-02-29T00:00:00Zx", "1677-01-01T00:00:00Z",
        "2262-12-31T00:00:00Z", "9999-12-31T23:59:59Z", "yesterday", "2026-02-31T00:00:00Z",
        "2026-04-31T00:00:00Z", "2016-12-31T23:59:60Z"}) {
    EXPECT_FALSE(ParseTime(text, format)) << text;
  }
  EXPECT_FALSE(FormatTime(At(0), ""));
  EXPECT_FALSE(FormatTime(At(0), std::string(257, 'x')));
  EXPECT_TRUE(FormatTime(At(0), std::string(256, 'x')));
}

}  // namespace
