#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/buffer.h"
#include "base/callback.h"
#include "base/exception.h"
#include "base/maybe.h"
#include "base/shared.h"
#include "tests/support/error_text.h"

namespace {

class Node : public Base::Shareable {
 public:
  explicit Node(int* destroyed) : _destroyed(destroyed) {}
  ~Node() override { ++*_destroyed; }

 private:
  int* _destroyed;
};

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

TEST(SharedTest, TheLastHandleDeletes) {
  int destroyed = 0;
  std::size_t const before = Base::Shareable::GetLiveObjectCount();
  {
    auto node = Base::MakeShared<Node>(&destroyed);
    Base::Shared<Base::Shareable> base = node;
    Base::Shared<Base::Shareable> const moved = std::move(base);
    node.Reset();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(Base::Shareable::GetLiveObjectCount(), before + 1);
    auto self = moved;
    self = *&self;
    EXPECT_TRUE(self == moved);
  }
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(Base::Shareable::GetLiveObjectCount(), before);
}

TEST(CallbackTest, MovesItsArgumentsAndItsCallable) {
  auto owned = std::make_unique<int>(40);
  int sum = 0;
  auto const callback = Base::MakeCallback(
      [owned = std::move(owned), &sum](std::unique_ptr<int> more) { sum = *owned + *more; });
  callback->Call(std::make_unique<int>(2));
  EXPECT_EQ(sum, 42);
  Base::Callback<int> const first = [&sum](int value) { sum = value; };
  std::vector<Base::Callback<int>> const copies(2, first);
  copies[1].Call(7);
  EXPECT_EQ(sum, 7);
  EXPECT_FALSE(Base::Callback<>());
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
