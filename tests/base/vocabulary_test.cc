#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/buffer.h"
#include "base/exception.h"
#include "base/maybe.h"
#include "tests/support/base/error_text.h"

namespace {

TEST(ExceptionTest, PosixTextsNameTheErrno) {
  EXPECT_STREQ(Base::ExceptionPosix(ENOENT).what(), "No such file or directory (Err 2)");
  EXPECT_STREQ(Base::ExceptionPosix("Failed", EMFILE).what(),
               "Failed - Too many open files (Err 24)");
  EXPECT_TRUE(std::string(Base::ExceptionPosix(-1).what()).ends_with(" (Err -1)"));
  EXPECT_EQ(Base::ExceptionPosix(EMFILE).GetErrorCode(), EMFILE);
  Base::Exception const sliced = Base::ExceptionPosix(ENOENT);
  EXPECT_STREQ(sliced.what(), "");
  EXPECT_STREQ(Base::OverflowException().what(), "Overflow");
}

TEST(MaybeTest, AnEmptyOneHasNoValue) {
  Base::Maybe<Base::Exception> status;
  EXPECT_FALSE(status);
  EXPECT_EQ(ErrorOf([&] { status.Get(); }), "Value Not Set");
  status = Base::Exception("no");
  EXPECT_STREQ(status.Get().what(), "no");
}

TEST(BufferTest, SlicesShareStorageAndStayInside) {
  auto const whole = Base::ByteBuffer::Zeroed(8);
  auto const tail = whole.Slice(6, 2);
  std::memset(tail.GetData(), 'x', tail.GetLength());
  EXPECT_EQ(whole.GetData()[5], 0);
  EXPECT_EQ(whole.GetData()[6], 'x');
  EXPECT_EQ(whole.Slice(8, 0).GetLength(), 0U);
  EXPECT_THROW(whole.Slice(7, 2), Base::OverflowException);
  EXPECT_THROW(whole.Slice(9, 0), Base::OverflowException);
  EXPECT_THROW(tail.Slice(1, static_cast<std::size_t>(-1)), Base::OverflowException);
}

}  // namespace
