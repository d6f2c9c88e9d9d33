#include "net/socket_linux.h"

#include <sys/un.h>

#include <array>
#include <optional>
#include <vector>

#include "base/exception.h"
#include "tests/support/base/child.h"
#include "tests/support/base/descriptor_limit.h"
#include "tests/support/base/loop/loop_fixture.h"
#include "tests/support/net/socket_fixture.h"

namespace {

class SocketLinuxTest : public LoopTest {
 protected:
  // Reads once, now or when there is something.
  void Read(Base::Shared<Net::SocketLinux> const& socket, std::size_t length = 16) {
    OnLoop([&] { socket->Read(Base::ByteBuffer::Zeroed(length), NoteRead()); });
  }

  void Close(Base::Shared<Net::SocketLinux> const& socket) {
    OnLoop([&] { socket->Close(); });
  }

  // Fills what the kernel takes, until a write has to wait for the peer.
  void FillUp(Base::Shared<Net::SocketLinux> const& socket) {
    Base::ByteBuffer const data = Base::ByteBuffer::Zeroed(65536);
    for (bool waits = false; !waits;) {
      waits = ErrorOf([&] { socket->Write(data, NoteWrite()); }) == "Socket already writing";
    }
    events.Take(0);
  }

  Base::UniqueFd peer;
};

TEST_F(SocketLinuxTest, ReadsAreReportedOnceAndOneAtATime) {
  auto const socket = MakePair(loop, SOCK_STREAM, peer);
  Send(peer, "now");
  Read(socket);
  EXPECT_EQ(events.Take(), "read ok now;");
  Read(socket);
  EXPECT_EQ(ErrorOf([&] { socket->Read(Base::ByteBuffer::Zeroed(1), NoteRead()); }),
            "Socket already reading");
  EXPECT_EQ(ErrorOf([&] { socket->Write(Base::CopyOfText("x"), {}); }), "Invalid Callback");
  Send(peer, "later");
  EXPECT_EQ(events.Take(), "read ok later;");
  Read(socket);
  peer.Reset();
  EXPECT_EQ(events.Take(), "read ok  end;");
  Close(socket);
  EXPECT_EQ(ErrorOf([] { Net::SocketLinux(Base::UniqueFd(), nullptr); }), "Invalid socket");
}

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

TEST_F(SocketLinuxTest, CloseReportsWhatIsPendingOnce) {
  auto const socket = MakePair(loop, SOCK_STREAM, peer);
  Read(socket);
  FillUp(socket);
  Close(socket);
  Close(socket);
  EXPECT_EQ(events.Take(2),
            "written Socket closed 65536;read Socket closed " + std::string(16, '\0') + " end;");
  EXPECT_EQ(ErrorOf([&] { socket->Bind({}); }), "Socket closed");
  EXPECT_EQ(ErrorOf([&] { socket->Write(Base::CopyOfText("x"), NoteWrite()); }), "Socket closed");
  OnLoop([&] {
    socket->Disconnect(Base::MakeCallback(
        [this](Base::Status const& status) { events.Add("closed " + StatusText(status)); }));
  });
  EXPECT_EQ(events.Take(), "closed ok;");
}

TEST_F(SocketLinuxTest, AWaitingWriteGoesOnWhenThePeerReads) {
  auto const socket = MakePair(loop, SOCK_STREAM, peer);
  FillUp(socket);
  std::array<char, 65536> bytes;
  while (recv(peer.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
  }
  EXPECT_TRUE(events.Take().starts_with("written ok "));
  FillUp(socket);
  peer.Reset();
  EXPECT_TRUE(events.Take().starts_with("written ")) << "the peer is gone";
  EXPECT_NE(ErrorOf([&] { socket->GetPeerCredentials(); }), "none");
}

// Neither is closed: the loop's end has to let go of them.
TEST_F(SocketLinuxTest, PendingOperationsDoNotOutliveTheLoop) {
  Base::UniqueFd otherPeer;
  for (Base::UniqueFd* const end : {&peer, &otherPeer}) {
    auto const socket = MakePair(loop, SOCK_STREAM, *end);
    OnLoop([&] {
      socket->Read(Base::ByteBuffer::Zeroed(1),
                   Base::MakeCallback([socket](Base::Status const&, Base::ByteBuffer, bool) {}));
    });
  }
  FillUp(MakePair(loop, SOCK_SEQPACKET, peer));
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

TEST_F(ListenTest, OutOfDescriptorsItRestsAndServesOnceThereAreSome) {
  Base::UniqueFd const client(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  std::optional<DescriptorLimit> limit(GetNextDescriptor());
  ASSERT_EQ(connect(client.Get(), address.GetData(), address.GetLength()), 0);
  EXPECT_EQ(events.Take(), "Too many open files (Err 24) none;");
  // The loop is free, and after some of its rests still no second failure has been reported.
  for (int i = 0; i < 3; ++i) {
    loop->PostScheduledTask(100 * i, Base::MakeCallback([this] { events.Add("free"); }));
  }
  EXPECT_EQ(events.Take(3), "free;free;free;");
  // Busy past the end of a rest: the loop's next wait has to end all the same.
  OnLoop([] { std::this_thread::sleep_for(std::chrono::milliseconds(250)); });
  limit.reset();
  EXPECT_EQ(events.Take(), "ok unix:;");
}

TEST_F(ListenTest, ConnectsOnceAtATime) {
  auto const client = Base::MakeShared<Net::SocketLinux>(AF_UNIX, SOCK_SEQPACKET, 0, loop);
  auto const note = Base::MakeCallback(
      [this](Base::Status const& status) { events.Add("connect " + StatusText(status)); });
  OnLoop([&] { client->Connect(address, note); });
  std::string const seen = events.Take(2);
  EXPECT_NE(seen.find("connect ok;"), std::string::npos);
  EXPECT_NE(seen.find("ok unix:;"), std::string::npos);
  OnLoop([&] { client->Connect(Net::Address::FromUnixPath("/nowhere"), note); });
  EXPECT_EQ(events.Take(), "connect No such file or directory (Err 2);");
}

}  // namespace
