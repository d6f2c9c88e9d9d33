#include "support/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace {

using Support::Error;

TEST(ErrorTest, JsonAndTextHoldTheWholeChainAndNothingEmpty) {
  Error const error = Error("file-not-written", "The report cannot be written.", "Free some space.")
                          .With("path", "/tmp/report")
                          .With("size", 7)
                          .Because(Base::ExceptionPosix(ENOSPC));
  std::string const reason = "No space left on device (Err 28)";
  EXPECT_EQ(error.ToJson(), (nlohmann::json{{"code", "file-not-written"},
                                            {"message", "The report cannot be written."},
                                            {"advice", "Free some space."},
                                            {"fields", {{"path", "/tmp/report"}, {"size", 7}}},
                                            {"cause",
                                             {{"code", "system-call-failed"},
                                              {"message", reason},
                                              {"fields", {{"errno", ENOSPC}}}}}}));
  EXPECT_EQ(error.ToText(2),
            "  The report cannot be written.\n"
            "    path: /tmp/report\n"
            "    size: 7\n"
            "    Advice: Free some space.\n"
            "    Cause:\n"
            "      " +
                reason + "\n        errno: 28\n");
  EXPECT_EQ(Error("a-b", "c").ToJson(), (nlohmann::json{{"code", "a-b"}, {"message", "c"}}));
}

TEST(ErrorTest, KeepsWhatAnotherExceptionSays) {
  Error const inner = Error("inner", "below").With("path", "/x");
  Error const outer = Error("outer", "above").Because(inner);
  ASSERT_NE(outer.GetCause(), nullptr);
  EXPECT_EQ(outer.GetCause()->ToJson(), inner.ToJson());
  EXPECT_EQ(Error::FromException(std::runtime_error("why")).ToJson(),
            (nlohmann::json{{"code", "failed"}, {"message", "why"}}));
}

}  // namespace
