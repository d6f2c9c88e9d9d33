#include "utilities/arguments/arguments.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <set>
#include <string>

#include "tests/support/utilities/arguments/settings.h"

namespace {

class ArgumentsTest : public testing::Test {
 protected:
  static void SetVariable(std::string const& name, char const* value) {
    setenv(name.c_str(), value, 1);
  }

  void TearDown() override {
    for (char const* const name : {"KESTREL_PERIOD", "KESTREL_", "KESTREL_Trace-Level"}) {
      unsetenv(name);
    }
  }
};

TEST_F(ArgumentsTest, FormsOfAnArgument) {
  SetArguments({"--a:1", "--b=x=y:z", "--C-d", "-x", "word", "--", "--=v", "--e.f=1", "--g="});
  EXPECT_EQ(GetArgument("a", "?"), "1");
  EXPECT_EQ(GetArgument("b", "?"), "x=y:z");
  EXPECT_TRUE(HasArgument("c_D"));
  EXPECT_EQ(GetArgument("c-d", "?"), "?") << "a flag has no value";
  EXPECT_TRUE(HasArgument("g"));
  EXPECT_EQ(GetArgument("g", "?"), "");
  for (char const* const name : {"x", "-x", "word", "", "e.f", "program"}) {
    EXPECT_FALSE(HasArgument(name)) << name;
  }
  ASSERT_EQ(GetArguments().size(), 10U) << "what cannot be looked up is kept all the same";
  EXPECT_EQ(GetArguments()[0].kind, argumentFromCommandLine | argumentField);
  EXPECT_EQ(GetArguments()[8].text, "--e.f=1");
}

TEST_F(ArgumentsTest, TheLaterEntryAndTheEnvironmentWin) {
  SetVariable("KESTREL_PERIOD", "60");
  SetVariable("KESTREL_Trace-Level", "");
  SetVariable("KESTREL_", "nameless");
  SetArguments({"--Period=300", "--Trace_Level=2", "--twice=1", "--TWICE=2"});
  EXPECT_EQ(GetIntArgument("Period", 5), 60);
  EXPECT_EQ(GetIntArgument("twice", 0), 2);
  EXPECT_TRUE(GetBoolArgument("trace-level", false)) << "an empty variable is a flag";
  std::set<std::string> names;
  for (Argument const& argument : GetArguments()) names.insert(argument.name);
  EXPECT_TRUE(names.contains("period") && names.contains("trace_level")) << "as compared";
  EXPECT_TRUE(names.contains("TWICE")) << "as written";
  EXPECT_EQ(GetArgumentCountBeforeCommandLine(), 0U);
  EXPECT_EQ(GetArgumentCountAfterCommandLine(), 5U);
  ParseArguments();
  EXPECT_FALSE(HasArgument("twice"));
  EXPECT_EQ(GetIntArgument("period", 5), 60);
}

TEST_F(ArgumentsTest, MalformedValuesReadAsTheDefault) {
  SetArguments({"--yes", "--no=FALSE", "--zero=0", "--true=True", "--odd=yes", "--word=abc",
                "--tail=12x", "--space= 12", "--plus=+1", "--big=99999999999", "--minus=-7"});
  EXPECT_TRUE(GetBoolArgument("yes", false));
  EXPECT_FALSE(GetBoolArgument("no", true));
  EXPECT_FALSE(GetBoolArgument("zero", true));
  EXPECT_TRUE(GetBoolArgument("true", false));
  EXPECT_TRUE(GetBoolArgument("odd", true));
  EXPECT_FALSE(GetBoolArgument("absent", false));
  for (char const* const name : {"word", "tail", "space", "plus", "big", "yes", "absent"}) {
    EXPECT_EQ(GetIntArgument(name, 300), 300) << name;
  }
  EXPECT_EQ(GetIntArgument("minus", 300), -7);
  EXPECT_EQ(GetUnsignedArgument("minus", 300), 300U);
  EXPECT_EQ(GetInt64Argument("big").Get(), 99999999999);
  EXPECT_FALSE(GetInt64Argument("word"));
}

}  // namespace
