#include "utilities/os.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "base/exception.h"
#include "utilities/ini_reader.h"

namespace {

class OsReleaseTest : public testing::Test {
 protected:
  ~OsReleaseTest() override { unlink(name.c_str()); }

  PlatformFacts Detect(std::string const& text) {
    std::ofstream(name, std::ios::binary) << text;
    return DetectPlatform(name);
  }

  std::string const name = testing::TempDir() + "os_test." + std::to_string(getpid());
};

TEST_F(OsReleaseTest, CaseDoubleQuotesAndWhiteSpaceDoNotMatter) {
  EXPECT_EQ(Detect("NAME=\"igel os 12\"\n").platform, Platform::Igel12);
  EXPECT_EQ(Detect("NAME=IGEL OS 11\n").platform, Platform::Igel11);
  EXPECT_EQ(Detect("NAME=ELUX").platform, Platform::ELux);
  EXPECT_EQ(Detect("NAME=\" NoTouch\t\"\r\n").platform, Platform::NoTouch);
  PlatformFacts const facts = Detect(
      "\n# comment\r\nNAME=\"Rangee\"\r\nVERSION=\"13.00 \"\r\n"
      "PRETTY_NAME=\"The \"Rangee\"\"");
  EXPECT_EQ(facts.platform, Platform::Rangee);
  EXPECT_EQ(facts.version, "13.00");
  EXPECT_EQ(facts.prettyName, "The Rangee");
}

TEST_F(OsReleaseTest, AnUnknownNameIsLinux) {
  for (char const* const text :
       {"", "NAME=\"IGEL OS\"\n", "NAME='IGEL OS 12'\n", "NAME = IGEL OS 12\n",
        "[os]\nNAME=IGEL OS 12\n", "#NAME=IGEL OS 12\n", "NAME=IGEL OS 12\nNAME=Debian\n"}) {
    EXPECT_EQ(Detect(text).platform, Platform::Linux) << text;
  }
  EXPECT_EQ(Detect(std::string(1U << 20U, 'x') + "\nNAME=IGEL OS 12").platform, Platform::Igel12);
  EXPECT_EQ(Detect("NAME=IGEL OS 12" + std::string(1U << 20U, '\0')).platform, Platform::Linux);
  EXPECT_EQ(DetectPlatform("/nonexistent").platform, Platform::Linux);
  EXPECT_EQ(DetectPlatform("/proc/self").platform, Platform::Linux);
}

TEST_F(OsReleaseTest, TheVersionOfLinuxIsTheKernelsRelease) {
  utsname system{};
  ASSERT_EQ(uname(&system), 0);
  if (GetPlatform() != Platform::Linux) GTEST_SKIP() << GetPrettyName();
  EXPECT_EQ(GetPlatformVersion(), system.release);
}

TEST(PlatformNameTest, BothGenerationsOfIgelOsShareOneName) {
  EXPECT_EQ(GetPlatformName(Platform::Igel11), "IGEL");
  EXPECT_EQ(GetPlatformName(Platform::Igel12), "IGEL");
  EXPECT_EQ(GetPlatformName(static_cast<Platform>(9)), "");
  EXPECT_EQ(GetPlatformName(static_cast<Platform>(-1)), "");
}

TEST_F(OsReleaseTest, IniFileKeepsSectionsApartAndTheLastValue) {
  std::ofstream(name) << "a=1=2\n=3\nb\n\nx [one] y=z\na= 4 \n]a[=5\n[]\nb=6\n[one]\na=7";
  IniReader const file(name);
  EXPECT_EQ(file.GetValue("", "a"), "1=2");
  EXPECT_EQ(file.GetValue("", ""), "3");
  EXPECT_EQ(file.GetValue("one", "a"), "7");
  EXPECT_EQ(file.GetValue("one", "]a["), "5");
  EXPECT_EQ(file.GetValue("", "b"), "6");
  EXPECT_EQ(file.GetValue("two", "a"), "");
  EXPECT_THROW(IniReader("/nonexistent"), Base::Exception);
  EXPECT_THROW(IniReader("/proc/self"), Base::Exception);
}

}  // namespace
