#include "daemon/packet_backlog.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace {

TEST(PacketBacklogTest, FirstInFirstOutAndCountedToTheByte) {
  PacketBacklog backlog;
  std::size_t length = 0;
  for (int i = 0; i < 1000; ++i) {
    std::string const payload(static_cast<std::size_t>(i % 7) * 100, static_cast<char>(i));
    backlog.Push(payload);
    length += 4 + payload.size();
    EXPECT_EQ(backlog.GetLength(), length);
    if (i % 3 != 0) continue;
    length -= 4 + backlog.Pop().size();
  }
  for (int i = 334; i < 1000; ++i) {
    EXPECT_EQ(backlog.Pop(),
              std::string(static_cast<std::size_t>(i % 7) * 100, static_cast<char>(i)));
  }
  EXPECT_TRUE(backlog.IsEmpty());
}

}  // namespace
