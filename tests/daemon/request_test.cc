#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "daemon/budget_read_stream.h"
#include "daemon/dispatch.h"
#include "daemon/packet_backlog.h"
#include "io/native_messaging_host_read_stream.h"
#include "tests/support/base/loop/loop_fixture.h"
#include "tests/support/net/socket_fixture.h"

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

class DispatchTest : public IOThreadTest {
 protected:
  // What `text` is answered, parsed and dispatched on a thread with a stack of `stackSize` bytes.
  std::string Answer(std::string const& text, std::size_t stackSize) {
    socket = MakePair(loop, SOCK_SEQPACKET, peer);
    loop->Stop();  // nobody else touches the socket
    request = text;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    EXPECT_EQ(pthread_attr_setstacksize(&attributes, stackSize), 0);
    pthread_t thread{};
    EXPECT_EQ(pthread_create(&thread, &attributes, &Run, this), 0);
    pthread_attr_destroy(&attributes);
    pthread_join(thread, nullptr);
    loop->Start();  // writes the payload after the header
    Receive(peer);
    std::string const answer = Receive(peer);
    OnLoop([this] { socket->Close(); });
    socket.Reset();
    return answer;
  }

  static void* Run(void* self) {
    auto const& test = *static_cast<DispatchTest*>(self);
    DispatchRequest(test.socket, nlohmann::json::parse(test.request));
    return nullptr;
  }

  Base::UniqueFd peer;
  Base::Shared<Net::SocketLinux> socket;
  std::string request;
};

TEST_F(DispatchTest, TheDeepestRequestsAreAnsweredOnASmallStack) {
  constexpr std::size_t stackSize = 262144;
  std::string const nested = std::string(65520, '[') + std::string(65520, ']');
  for (std::string const& text :
       {nested, R"({"sensor":)" + nested + "}", R"({"sensor":{"x":)" + nested + "}}"}) {
    EXPECT_EQ(Answer(text, stackSize), R"({"status":"ErrorNotImplemented"})");
  }
}

class TurnReadStreamTest : public IOThreadTest {};

// All of it is there before the first read, and would fit into one drain of the loop.
TEST_F(TurnReadStreamTest, APacketInManyPiecesLetsTheLoopPollInBetween) {
  constexpr std::uint32_t pieces = 64;
  Base::UniqueFd peer;
  auto const socket = MakePair(loop, SOCK_SEQPACKET, peer);
  Send(peer, std::string("\x40\0\0\0", 4));
  for (std::uint32_t i = 0; i < pieces; ++i) Send(peer, "x");
  std::uint64_t rounds = 0;
  OnLoop([&] {
    auto const stream = Base::MakeShared<IO::NativeMessagingHostReadStream>(
        Base::MakeShared<BudgetReadStream>(
            Base::MakeShared<Net::SocketReadStream>(socket, std::size_t{2048})),
        pieces);
    stream->Read(Base::MakeCallback(
        [&, first = loop->GetRound()](Base::Status const& status, Base::ByteBuffer data, bool) {
          rounds = loop->GetRound() - first;
          events.Add(StatusText(status) + " " + Text(data));
        }));
  });
  EXPECT_EQ(events.Take(), "ok " + std::string(pieces, 'x') + ";");
  EXPECT_GE(rounds, pieces / 8);
  OnLoop([&] { socket->Close(); });
}

}  // namespace
