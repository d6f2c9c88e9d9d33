#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <string_view>

#include "tests/support/base/error_text.h"
#include "trace/guid.h"
#include "trace/hex.h"
#include "trace/time_text.h"

namespace {

TEST(HexTest, BytesGoBothWays) {
  std::array<unsigned char, 256> bytes;
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i);
  std::string const text = Trace::ToHex(bytes);
  EXPECT_EQ(text.substr(0, 24), "000102030405060708090a0b");
  EXPECT_TRUE(std::ranges::equal(Trace::FromHex(text).GetSpan(), bytes));
  EXPECT_EQ(Trace::ToHex(Trace::FromHex("C0fFEe").GetSpan()), "c0ffee");
  EXPECT_EQ(Trace::FromHex("").GetLength(), 0U);
}

TEST(HexTest, OtherTextAndTooMuchTextFail) {
  std::array<unsigned char, 2> room{};
  EXPECT_EQ(Trace::FromHex("0a0b", room), 2U);
  EXPECT_EQ(room[1], 0x0B);
  EXPECT_EQ(ErrorOf([&] { Trace::FromHex("0a0b0c", room); }), "Overflow");
  EXPECT_EQ(ErrorOf([] { Trace::FromHex("0a0"); }), "Invalid hex string length");
  for (char const* const text : {"0g", "G0", " 0", "0x", "+1", "/0", ":0", "@0", "`0"}) {
    EXPECT_EQ(ErrorOf([&] { Trace::FromHex(text); }), "Invalid Argument") << text;
  }
}

TEST(GuidTest, TextGoesBothWaysAndOtherTextIsNoGuid) {
  std::string const text = "0b9f4a0e-6c1d-4c5e-9d5b-0f6a2d3c4b5a";
  Trace::Guid const guid = Trace::Guid::Parse(text);
  EXPECT_EQ(guid.ToText(), text);
  EXPECT_EQ(guid.GetBytes()[0], 0x0B);
  EXPECT_EQ(guid.GetBytes()[15], 0x5A);
  EXPECT_EQ(Trace::Guid::Parse("0B9F4A0E-6C1D-4C5E-9D5B-0F6A2D3C4B5A"), guid);
  for (std::string const& other :
       {std::string(), text.substr(1), text + "0", text + std::string(1, '\0'), "{" + text + "}",
        "g" + text.substr(1), "-" + text.substr(1), text.substr(0, 35) + std::string(1, '\0')}) {
    EXPECT_EQ(ErrorOf([&] { Trace::Guid::Parse(other); }), "Not a guid") << other;
  }
  auto const generated = Trace::Guid::Generate();
  EXPECT_EQ(generated.ToText()[14], '4') << "the version";
  EXPECT_NE(generated, Trace::Guid::Generate());
}

TEST(TimeTextTest, TimesGoBothWays) {
  using std::chrono::nanoseconds;
  for (std::string_view const text :
       {"2026-05-03T17:30:41.042Z", "1970-01-01T00:00:00.000Z", "1969-12-31T23:59:59.999Z",
        "2024-02-29T00:00:00.001Z", "1677-09-21T00:12:44.000Z", "2262-04-11T23:47:15.999Z"}) {
    std::string written;
    Trace::AppendTimePoint(written, Trace::ParseTimePoint(text));
    EXPECT_EQ(written, text);
  }
  auto const second = Trace::ParseTimePoint("2026-05-03T17:30:41Z");
  EXPECT_EQ(second.time_since_epoch(), std::chrono::seconds(1777829441));
  EXPECT_EQ(Trace::ParseTimePoint("2026-05-03T17:30:41.5Z") - second, nanoseconds(500000000));
  EXPECT_EQ(Trace::ParseTimePoint("2026-05-03T17:30:41.000000007Z") - second, nanoseconds(7));
}

TEST(TimeTextTest, OtherTextIsNoTime) {
  for (std::string_view const text :
       {"", "2026-05-03", "2026-05-03T17:30:41", "2026-05-03T17:30:41ZZ", "2026-05-03 17:30:41Z",
        "2026-05-03T17:30:41.Z", "2026-05-03T17:30:41.0000000001Z", "2026-13-03T17:30:41Z",
        "2026-02-29T17:30:41Z", "2026-05-00T17:30:41Z", "2026-05-03T24:00:00Z",
        "2026-05-03T17:60:41Z", "2026-05-03T17:30:60Z", "+026-05-03T17:30:41Z",
        "2026-5-03T17:30:41.0Z", "1677-09-21T00:12:43Z", "2262-04-11T23:47:16Z",
        "9999-12-31T23:59:59Z", "0000-01-01T00:00:00Z"}) {
    EXPECT_EQ(ErrorOf([&] { Trace::ParseTimePoint(text); }), "Failed to parse time") << text;
  }
}

}  // namespace
