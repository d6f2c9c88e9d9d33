#include "base/string_conversion.h"

#include <gtest/gtest.h>

#include <string>

#include "base/exception.h"

namespace {

TEST(StringConversionTest, TextOfEveryLengthGoesBothWays) {
  std::string const utf8(
      "a\0\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf"
      "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf",
      27);
  std::wstring const wide(L"a\0\x7f\x80\x7ff\x800\xd7ff\xe000\xffff\x10000\x10ffff", 11);
  EXPECT_EQ(Base::ToWide(utf8), wide);
  EXPECT_EQ(Base::ToUtf8(wide), utf8);
  EXPECT_EQ(Base::ToWide(""), L"");
}

// As many replacements as Unicode recommends: one for the longest beginning of a good sequence.
TEST(StringConversionTest, WhatIsMalformedIsReplaced) {
  EXPECT_EQ(Base::ToWide("a\x80\xff z"), L"a\xfffd\xfffd z");
  EXPECT_EQ(Base::ToWide("\xc1\xbf"), L"\xfffd\xfffd") << "longer than it need be";
  EXPECT_EQ(Base::ToWide("\xe0\x9f\xbf"), L"\xfffd\xfffd\xfffd") << "the same";
  EXPECT_EQ(Base::ToWide("\xf0\x8f\xbf\xbf"), L"\xfffd\xfffd\xfffd\xfffd") << "the same";
  EXPECT_EQ(Base::ToWide("\xed\xa0\x80"), L"\xfffd\xfffd\xfffd") << "a surrogate";
  EXPECT_EQ(Base::ToWide("\xf4\x90\x80\x80"), L"\xfffd\xfffd\xfffd\xfffd") << "beyond the last";
  EXPECT_EQ(Base::ToWide("\xf5z"), L"\xfffdz");
  EXPECT_EQ(Base::ToWide("\xf0\x9f\x98z"), L"\xfffdz") << "cut short";
  EXPECT_EQ(Base::ToWide("\xe2\x82"), L"\xfffd") << "cut short by the end";
  std::wstring const wide{static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), L'z'};
  EXPECT_EQ(Base::ToUtf8(wide), "\xef\xbf\xbd\xef\xbf\xbdz");
}

TEST(StringConversionTest, WhatNoTextCanHoldIsAnOverflow) {
  std::string_view const utf8("", std::wstring().max_size() + 1);
  EXPECT_THROW(Base::ToWide(utf8), Base::OverflowException);
  std::wstring_view const wide(L"", std::string().max_size() / 4 + 1);
  EXPECT_THROW(Base::ToUtf8(wide), Base::OverflowException);
}

}  // namespace
