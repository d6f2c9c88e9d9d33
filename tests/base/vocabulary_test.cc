#include <gtest/gtest.h>

#include <cerrno>

#include "base/buffer.h"
#include "base/exception.h"
#include "base/maybe.h"
#include "tests/support/base/error_text.h"

namespace {

TEST(ExceptionTest, WhatIsNotThereHasItsText) {
  EXPECT_EQ(ErrorOf([] { Base::Maybe<int>().Get(); }), "Value Not Set");
  Base::Exception const sliced = Base::ExceptionPosix(ENOENT);
  EXPECT_STREQ(sliced.what(), "");
}

TEST(BufferTest, SlicesShareStorageAndStayInside) {
  auto const whole = Base::ByteBuffer::Zeroed(8);
  auto const tail = whole.Slice(6, 2);
  EXPECT_EQ(tail.GetData(), whole.GetData() + 6);
  EXPECT_EQ(whole.Slice(8, 0).GetLength(), 0U);
  EXPECT_THROW(whole.Slice(7, 2), Base::OverflowException);
  EXPECT_THROW(whole.Slice(9, 0), Base::OverflowException);
  EXPECT_THROW(tail.Slice(1, static_cast<std::size_t>(-1)), Base::OverflowException);
}

}  // namespace
