#include <array>
#include <string>
#include <type_traits>

#include "io/file_stream_linux.h"
#include "net/socket_linux.h"
#include "tests/support/base/loop/loop_fixture.h"
#include "tests/support/net/socket_fixture.h"

namespace {

// What sockets and files have in common, each over one end of a socket pair.
template <typename Descriptor>
class ByteStreamTest : public LoopTest {
 protected:
  void SetUp() override {
    LoopTest::SetUp();
    stream = MakePair<Descriptor>(loop, SOCK_STREAM, peer);
  }

  void TearDown() override {
    stream.Reset();
    LoopTest::TearDown();
  }

  // Reads once, now or when there is something.
  void Read() {
    OnLoop([this] { stream->Read(Base::ByteBuffer::Zeroed(16), NoteRead()); });
  }

  // Writes what the kernel takes, until a write has to wait for the peer.
  void FillUp() {
    Base::ByteBuffer const data = Base::ByteBuffer::Zeroed(65536);
    while (ErrorOf([&] { stream->Write(data, NoteWrite()); }) != name + " already writing") {
    }
    this->AwaitRounds(2);  // a file may report in the next round
    events.Take(0);
  }

  std::string const name = std::is_same_v<Descriptor, Net::SocketLinux> ? "Socket" : "File";
  Base::UniqueFd peer;
  Base::Shared<Descriptor> stream;
};

using Descriptors = testing::Types<Net::SocketLinux, IO::FileStreamLinux>;
TYPED_TEST_SUITE(ByteStreamTest, Descriptors);

TYPED_TEST(ByteStreamTest, ReadsAreReportedOnceAndOneAtATime) {
  Send(this->peer, "now");
  this->Read();
  EXPECT_EQ(this->events.Take(), "read ok now;");
  this->Read();
  EXPECT_EQ(this->ErrorOf([this] { this->stream->Read({}, this->NoteRead()); }),
            this->name + " already reading");
  EXPECT_EQ(this->ErrorOf([this] { this->stream->Write({}, {}); }), "Invalid Callback");
  Send(this->peer, "later");
  EXPECT_EQ(this->events.Take(), "read ok later;");
  EXPECT_EQ(this->ErrorOf([this] { this->stream->Read({}, {}); }), "Invalid Callback");
  this->Read();
  this->peer.Reset();
  EXPECT_EQ(this->events.Take(), "read ok  end;");
}

TYPED_TEST(ByteStreamTest, AWaitingWriteGoesOnWhenThePeerReads) {
  this->FillUp();
  std::array<char, 65536> bytes;
  while (recv(this->peer.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
  }
  EXPECT_TRUE(this->events.Take().starts_with("written ok "));
  this->FillUp();
  this->peer.Reset();
  EXPECT_TRUE(this->events.Take().starts_with("written ")) << "the peer is gone";
  EXPECT_NE(this->ErrorOf([this] { this->stream->Write({}, this->NoteWrite()); }), "none");
}

TYPED_TEST(ByteStreamTest, CloseReportsWhatIsPendingOnce) {
  this->Read();
  this->FillUp();
  this->OnLoop([this] {
    this->stream->Close();
    this->stream->Close();
  });
  std::string const closed = this->name + " closed";
  EXPECT_EQ(this->events.Take(2),
            "written " + closed + " 65536;read " + closed + " " + std::string(16, '\0') + " end;");
  EXPECT_EQ(this->ErrorOf([this] { this->stream->Read({}, this->NoteRead()); }), closed);
  EXPECT_EQ(this->ErrorOf([this] { this->stream->Write({}, this->NoteWrite()); }), closed);
}

// The loop's end has to discard both operations, though the callback holds what holds it.
TYPED_TEST(ByteStreamTest, PendingOperationsDoNotOutliveTheLoop) {
  this->OnLoop([this] {
    this->stream->Read(Base::ByteBuffer::Zeroed(1),
                       Base::MakeCallback([stream = this->stream](Base::Status const&,
                                                                  Base::ByteBuffer, bool) {}));
  });
  this->FillUp();
}

}  // namespace
