#include <cstdint>
#include <cstring>

#include "io/native_messaging_host_read_stream.h"
#include "io/native_messaging_host_write_stream.h"
#include "net/socket.h"
#include "tests/support/base/loop/loop_fixture.h"
#include "tests/support/net/socket_fixture.h"

namespace {

constexpr std::uint32_t maxPacketSize = 131072;
constexpr std::size_t readSize = 2048;

std::string Header(std::uint32_t size) {
  std::string bytes(sizeof size, '\0');
  std::memcpy(bytes.data(), &size, sizeof size);
  return bytes;
}

// Packets over a real socket on the process-wide IO thread, to which outcomes are posted.
class NativeMessagingTest : public IOThreadTest {
 protected:
  void SetUp() override {
    IOThreadTest::SetUp();
    Open(SOCK_SEQPACKET);
  }

  void TearDown() override {
    OnLoop([this] { socket->Close(); });
    socket.Reset();
    IOThreadTest::TearDown();
  }

  void Open(int type) {
    if (socket) OnLoop([this] { socket->Close(); });
    socket = MakePair(loop, type, peer);
  }

  // Reads one packet; the event is "status end payload".
  void StartReading() {
    OnLoop([this] {
      auto const stream = Base::MakeShared<IO::NativeMessagingHostReadStream>(
          Base::MakeShared<Net::SocketReadStream>(socket, readSize), maxPacketSize);
      stream->Read(Base::MakeCallback(
          [this](Base::Status const& status, Base::ByteBuffer packet, bool complete) {
            events.Add(StatusText(status) + (complete ? " end " : " ") + Text(packet));
          }));
    });
  }

  void WritePacket(Base::ByteBuffer const& data) {
    OnLoop([&] {
      auto const stream = Base::MakeShared<IO::NativeMessagingHostWriteStream>(
          Base::MakeShared<Net::SocketWriteStream>(socket));
      stream->Write(
          data, Base::MakeCallback([this](Base::Status const& status, Base::ByteBuffer written) {
            events.Add(StatusText(status) + " " + std::to_string(written.GetLength()));
          }));
    });
  }

  Base::UniqueFd peer;
  Base::Shared<Net::SocketLinux> socket;
};

TEST_F(NativeMessagingTest, TheEndOfTheStreamInsideAPacketIsOne) {
  for (int const type : {SOCK_SEQPACKET, SOCK_STREAM}) {
    Open(type);
    Send(peer, Header(5));
    if (type == SOCK_STREAM) Send(peer, "he");
    StartReading();
    shutdown(peer.Get(), SHUT_WR);
    EXPECT_TRUE(events.Take().starts_with("Unexpected End Of Stream end"));
  }
}

TEST_F(NativeMessagingTest, HeaderAndPayloadAreTwoRecords) {
  WritePacket(Base::CopyOfText("hello"));
  EXPECT_EQ(Receive(peer), Header(5));
  EXPECT_EQ(Receive(peer), "hello");
  WritePacket({});
  WritePacket(Base::CopyOfText("x"));
  EXPECT_EQ(events.Take(3), "ok 5;ok 0;ok 1;");
  EXPECT_EQ(Receive(peer), Header(0));
  EXPECT_EQ(Receive(peer), Header(1)) << "no empty record follows an empty packet";
}

}  // namespace
