#include "base/string_conversion.h"

#include <gtest/gtest.h>

#include <string>

#include "base/exception.h"

namespace {

TEST(StringConversionTest, SequencesOfEveryLengthGoBothWays) {
  std::string const utf8("a\0\xc2\x80\xed\x9f\xbf\xf4\x8f\xbf\xbf", 11);
  std::wstring const wide(L"a\0\x80\xd7ff\x10ffff", 5);
  EXPECT_EQ(Base::ToWide(utf8), wide);
  EXPECT_EQ(Base::ToUtf8(wide), utf8);
  EXPECT_EQ(Base::ToWide(""), L"");
}

// As many replacements as Unicode recommends: one for the longest beginning of a good sequence.
TEST(StringConversionTest, MalformedTextIsReplaced) {
  EXPECT_EQ(Base::ToWide("a\x80\xff z"), L"a\xfffd\xfffd z");
  EXPECT_EQ(Base::ToWide("\xe0\x9f\xbf"), L"\xfffd\xfffd\xfffd") << "overlong";
  EXPECT_EQ(Base::ToWide("\xed\xa0\x80"), L"\xfffd\xfffd\xfffd") << "a surrogate";
  EXPECT_EQ(Base::ToWide("\xf4\x90\x80\x80"), L"\xfffd\xfffd\xfffd\xfffd") << "beyond the last";
  EXPECT_EQ(Base::ToWide("\xf0\x9f\x98z\xe2\x82"), L"\xfffdz\xfffd") << "incomplete";
  std::wstring const wide{static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), L'z'};
  EXPECT_EQ(Base::ToUtf8(wide), "\xef\xbf\xbd\xef\xbf\xbdz");
}

TEST(StringConversionTest, TextThatNoStringCanHoldIsAnOverflow) {
  std::string_view const utf8("", std::wstring().max_size() + 1);
  EXPECT_THROW(Base::ToWide(utf8), Base::OverflowException);
  std::wstring_view const wide(L"", std::string().max_size() / 4 + 1);
  EXPECT_THROW(Base::ToUtf8(wide), Base::OverflowException);
}

}  // namespace
