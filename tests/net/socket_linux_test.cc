#include "net/socket_linux.h"

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "io/native_messaging_host_write_stream.h"
#include "tests/support/base/child.h"
#include "tests/support/base/descriptor_limit.h"
#include "tests/support/base/loop/loop_fixture.h"
#include "tests/support/net/socket_fixture.h"

namespace {

class SocketLinuxTest : public LoopTest {
 protected:
  void Close(Base::Shared<Net::SocketLinux> const& socket) {
    OnLoop([&] { socket->Close(); });
  }

  Base::UniqueFd peer;
};

TEST_F(SocketLinuxTest, BytesBeforeAHangUpAreRead) {
  auto const socket = MakePair(loop, SOCK_STREAM, peer);
  OnLoop([&] {
    socket->Read(Base::ByteBuffer::Zeroed(16), NoteRead());
    Send(peer, "last");
    peer.Reset();
  });
  EXPECT_EQ(events.Take(), "read ok last end;");
  // Nothing is pending when the loop next finds the peer gone, and the socket closes by itself.
  while (ErrorOf([&] { socket->GetPeerCredentials(); }) != "Socket hung up") {
  }
}

TEST_F(SocketLinuxTest, AClosedSocketRefusesAllButItsDisconnect) {
  auto const socket = MakePair(loop, SOCK_STREAM, peer);
  Close(socket);
  EXPECT_EQ(ErrorOf([&] { socket->Bind({}); }), "Socket closed");
  OnLoop([&] {
    socket->Disconnect(Base::MakeCallback(
        [this](Base::Status const& status) { events.Add("closed " + StatusText(status)); }));
  });
  EXPECT_EQ(events.Take(), "closed ok;");
  EXPECT_EQ(ErrorOf([] { Net::SocketLinux(Base::UniqueFd(), nullptr); }), "Invalid socket");
}

TEST_F(SocketLinuxTest, AnEmptyCallbackIsRefusedButDisconnects) {
  auto const socket = MakePair(loop, SOCK_STREAM, peer);
  EXPECT_EQ(ErrorOf([&] { socket->Connect({}, {}); }), "Invalid Callback");
  EXPECT_EQ(ErrorOf([&] { socket->Listen(1, {}); }), "Invalid Callback");
  OnLoop([&] { socket->Disconnect({}); });
  EXPECT_EQ(ErrorOf([&] { socket->Bind({}); }), "Socket closed");
}

TEST_F(SocketLinuxTest, NoEmptyRecordFollowsAnEmptyPacket) {
  auto const socket = MakePair(loop, SOCK_SEQPACKET, peer);
  for (std::string const& payload : {std::string(), std::string("x")}) {
    OnLoop([&] {
      Base::MakeShared<IO::NativeMessagingHostWriteStream>(
          Base::MakeShared<Net::SocketWriteStream>(socket))
          ->Write(Base::CopyOfText(payload), NoteWrite());
    });
    EXPECT_EQ(events.Take(), "written ok " + std::to_string(payload.size()) + ";");
  }
  EXPECT_EQ(Receive(peer), std::string(4, '\0'));
  EXPECT_NE(Receive(peer), "");
  Close(socket);
}

// The flag that tells of a truncated record would discard these bytes.
TEST_F(SocketLinuxTest, ATcpSocketGetsItsBytes) {
  Base::UniqueFd const server(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const record = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(::bind(server.Get(), record, length), 0);
  ASSERT_EQ(::listen(server.Get(), 1), 0);
  ASSERT_EQ(::getsockname(server.Get(), record, &length), 0);
  peer.Reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::connect(peer.Get(), record, length), 0);
  auto const socket = Base::MakeShared<Net::SocketLinux>(
      Base::UniqueFd(::accept4(server.Get(), nullptr, nullptr, SOCK_CLOEXEC)), loop);
  OnLoop([&] {
    socket->Read(Base::ByteBuffer::Zeroed(16), NoteRead());
    Send(peer, "bytes");
  });
  EXPECT_EQ(events.Take(), "read ok bytes;");
  Close(socket);
}

TEST_F(SocketLinuxTest, LimitedReadsLetTheLoopPollBetweenThem) {
  auto const socket = MakePair(loop, SOCK_SEQPACKET, peer);
  for (int i = 0; i < 5; ++i) Send(peer, "x");
  std::uint64_t start = 0;
  std::function<void(int)> const read = [&](int left) {
    if (left == 0) return;
    socket->Read(Base::ByteBuffer::Zeroed(1),
                 Base::MakeCallback([&, left](Base::Status const&, Base::ByteBuffer, bool) {
                   events.Add(std::to_string(loop->GetRound() - start));
                   read(left - 1);
                 }));
  };
  OnLoop([&] {
    start = loop->GetRound();
    socket->LimitReads(2, 1);
    read(5);
  });
  // A completion that had to wait does not count in the next round.
  EXPECT_EQ(events.Take(5), "0;1;1;1;2;");
  Close(socket);
}

class ListenTest : public SocketLinuxTest {
 protected:
  void SetUp() override {
    SocketLinuxTest::SetUp();
    listener = Base::MakeShared<Net::SocketLinux>(AF_UNIX, SOCK_SEQPACKET, 0, loop);
    address = Net::Address::FromUnixPath((directory.path / "socket").string());
    listener->Bind(address);
    OnLoop([this] {
      listener->Listen(64, Base::MakeCallback([this](Base::Status const& status, Net::Address from,
                                                     Base::Shared<Net::SocketLinux> socket) {
                         events.Add(StatusText(status) + " " + (socket ? from.ToText() : "none"));
                         accepted.push_back(std::move(socket));
                       }));
    });
  }

  void TearDown() override {
    Close(listener);
    listener.Reset();
    accepted.clear();
    SocketLinuxTest::TearDown();
  }

  Base::UniqueFd Connect(std::string const& from = {}) {
    Base::UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!from.empty()) {
      auto const own = Net::Address::FromUnixPath(from);
      EXPECT_EQ(bind(fd.Get(), own.GetData(), own.GetLength()), 0);
    }
    EXPECT_EQ(connect(fd.Get(), address.GetData(), address.GetLength()), 0);
    return fd;
  }

  TemporaryDirectory directory;
  Base::Shared<Net::SocketLinux> listener;
  Net::Address address;
  std::vector<Base::Shared<Net::SocketLinux>> accepted;
};

TEST_F(ListenTest, OnlyTheRecordedPartOfALongPeerAddressIsUsed) {
  std::string const path = (directory.path / std::string(60, 'p')).string();
  Base::UniqueFd const client = Connect(path);
  EXPECT_EQ(events.Take(), "ok unix:" + path.substr(0, 14) + ";");
  OnLoop([&] {
    EXPECT_EQ(accepted[0]->GetPeerCredentials().pid, getpid());
    accepted[0]->Close();
  });
}

TEST_F(ListenTest, ASecondListenReplacesTheFirst) {
  int const next = GetNextDescriptor();
  OnLoop([this] {
    listener->Listen(
        64, Base::MakeCallback([this](Base::Status const&, Net::Address,
                                      Base::Shared<Net::SocketLinux>) { events.Add("second"); }));
  });
  EXPECT_EQ(GetNextDescriptor(), next) << "no second timer";
  Base::UniqueFd const client = Connect();
  EXPECT_EQ(events.Take(), "second;");
}

TEST_F(ListenTest, OutOfDescriptorsItBacksOffAndServesOnceThereAreSome) {
  Base::UniqueFd const client(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  std::optional<DescriptorLimit> limit(GetNextDescriptor());
  ASSERT_EQ(connect(client.Get(), address.GetData(), address.GetLength()), 0);
  EXPECT_EQ(events.Take(), "Too many open files (Err 24) none;");
  // The loop is free, and some backoffs later it has reported no second failure.
  for (int i = 0; i < 3; ++i) {
    loop->PostScheduledTask(100 * i, Base::MakeCallback([this] { events.Add("free"); }));
  }
  EXPECT_EQ(events.Take(3), "free;free;free;");
  // The loop is busy past the end of a backoff: its next wait has to end all the same.
  OnLoop([] { std::this_thread::sleep_for(std::chrono::milliseconds(250)); });
  limit.reset();
  EXPECT_EQ(events.Take(), "ok unix:;");
}

}  // namespace
