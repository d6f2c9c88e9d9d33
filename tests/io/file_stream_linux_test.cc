#include "io/file_stream_linux.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <termios.h>

#include <fstream>
#include <functional>
#include <memory>

#include "io/native_messaging_host_read_stream.h"
#include "tests/support/base/child.h"
#include "tests/support/base/loop/loop_fixture.h"

namespace {

class FileStreamLinuxTest : public LoopTest {
 protected:
  Base::Shared<IO::FileStreamLinux> Attach(int fd) {
    return Base::MakeShared<IO::FileStreamLinux>(Base::UniqueFd(fd), loop);
  }

  Base::Shared<IO::FileStreamLinux> Open(std::string const& path, int flags) {
    return Attach(open(path.c_str(), flags | O_CLOEXEC, 0600));
  }

  Base::Shared<IO::FileReadStreamLinux> MakeReader(Base::Shared<IO::FileStreamLinux> const& file,
                                                   std::size_t bufferSize) {
    return Base::MakeShared<IO::FileReadStreamLinux>(file, bufferSize);
  }

  // A pipe: a source on the loop, and the plain descriptor of its sink.
  Base::Shared<IO::FileReadStreamLinux> MakeSource(Base::UniqueFd& sink, std::size_t bufferSize) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    sink.Reset(ends[1]);
    return MakeReader(Attach(ends[0]), bufferSize);
  }

  static void Put(Base::UniqueFd const& sink, std::string_view text) {
    EXPECT_EQ(write(sink.Get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  void Read(Base::Shared<IO::FileReadStreamLinux> const& stream) {
    OnLoop([&] { stream->Read(NoteRead()); });
  }

  void Write(Base::Shared<IO::FileWriteStreamLinux> const& stream, std::string_view text) {
    OnLoop([&] { stream->Write(Base::CopyOfText(text), NoteWrite()); });
  }

  template <typename Stream>
  void Close(Base::Shared<Stream> const& stream) {
    OnLoop([&] { stream->Close(); });
  }

  TemporaryDirectory directory;
};

TEST_F(FileStreamLinuxTest, BytesBeforeAHangUpAreReadOnAlsoAfterNothingWaited) {
  Base::UniqueFd sink;
  auto const source = MakeSource(sink, 4);
  Read(source);
  OnLoop([&] {
    Put(sink, "the last");
    sink.Reset();
  });
  EXPECT_EQ(events.Take(), "read ok the ;");
  AwaitRounds(3);
  Read(source);
  EXPECT_EQ(events.Take(), "read ok last;");
  Read(source);
  EXPECT_EQ(events.Take(), "read ok  end;");
  Close(source);
  Close(source);
  EXPECT_EQ(ErrorOf([&] { source->Read(NoteRead()); }), "Read Stream Closed");
}

// The outcome is the packet stream's own, and not the process-wide IO thread's.
TEST_F(FileStreamLinuxTest, ThePacketsOfALoopEndOnThatLoop) {
  Base::UniqueFd sink;
  auto const packets =
      Base::MakeShared<IO::NativeMessagingHostReadStream>(MakeSource(sink, 4), 16U);
  sink.Reset();
  OnLoop([&] {
    packets->Read(
        Base::MakeCallback([this](Base::Status const& status, Base::ByteBuffer, bool complete) {
          events.Add(StatusText(status) + (complete ? " end" : "") +
                     (loop->IsCurrentThread() ? " here" : " elsewhere"));
        }));
  });
  EXPECT_EQ(events.Take(), "ok end here;");
  Close(packets);
}

TEST_F(FileStreamLinuxTest, AnErrorArrivesOnceAndEndsTheFile) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  close(ends[0]);
  auto const sink = Base::MakeShared<IO::FileWriteStreamLinux>(Attach(ends[1]));
  Write(sink, "x");
  EXPECT_EQ(events.Take(), "written Broken pipe (Err 32) 1;");
  Close(sink);
  EXPECT_EQ(ErrorOf([&] { sink->Write({}, NoteWrite()); }), "Write Stream Closed");

  auto const unreadable = MakeReader(Open(directory.path.string(), O_RDONLY), 16);
  Read(unreadable);
  EXPECT_EQ(events.Take(), "read Is a directory (Err 21)  end;");
  EXPECT_EQ(ErrorOf([&] { unreadable->Read(NoteRead()); }), "File closed");
  EXPECT_EQ(ErrorOf([&] { Attach(-1); }), "Invalid file");
}

// A read and a write wait at once for one descriptor, and the end of the read leaves the write
// waiting. The master's side goes on to say that it would block when the other side is gone.
TEST_F(FileStreamLinuxTest, ATerminalIsReadAndWrittenInPiecesUntilItsOtherSideIsGone) {
  int const master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_EQ(grantpt(master) | unlockpt(master), 0);
  Base::UniqueFd terminal(open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios mode{};
  tcgetattr(terminal.Get(), &mode);
  cfmakeraw(&mode);
  ASSERT_EQ(tcsetattr(terminal.Get(), TCSANOW, &mode), 0);
  auto const stream = Attach(master);
  auto const sink = Base::MakeShared<IO::FileWriteStreamLinux>(stream);
  std::string text(1U << 20U, '\0');
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i % 251);
  OnLoop([&] { stream->Read(Base::ByteBuffer::Zeroed(16), NoteRead()); });
  Write(sink, text);
  AwaitRounds(20);  // until the kernel takes no more
  Put(terminal, "line");
  EXPECT_EQ(events.Take(), "read ok line;");
  std::string received;
  std::array<char, 5000> piece;
  while (received.size() < text.size()) {
    ssize_t const length = read(terminal.Get(), piece.data(), piece.size());
    ASSERT_GT(length, 0);
    received.append(piece.data(), static_cast<std::size_t>(length));
  }
  EXPECT_EQ(events.Take(), "written ok 1048576;");
  EXPECT_TRUE(received == text);
  Write(sink, text);
  terminal.Reset();
  EXPECT_EQ(events.Take(), "written Input/output error (Err 5) 1048576;");
}

// The loop finds both ends gone. New ones open before the file looks at that, which must not end
// it.
TEST_F(FileStreamLinuxTest, AFifoGoesOnWhenItsOtherEndComesBack) {
  std::string const path = (directory.path / "fifo").string();
  std::string const fullPath = (directory.path / "full").string();
  ASSERT_EQ(mkfifo(path.c_str(), 0600) | mkfifo(fullPath.c_str(), 0600), 0);
  auto const source = MakeReader(Open(path, O_RDONLY | O_NONBLOCK), 16);
  Base::UniqueFd writer(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  Base::UniqueFd reader(open(fullPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  int const sink = open(fullPath.c_str(), O_WRONLY | O_CLOEXEC);
  std::string const filler(static_cast<std::size_t>(fcntl(sink, F_GETPIPE_SZ)), 'f');
  EXPECT_EQ(write(sink, filler.data(), filler.size()), static_cast<ssize_t>(filler.size()));
  Base::UniqueFd const first(eventfd(0, EFD_CLOEXEC));
  auto const stream = Attach(sink);
  OnLoop([&] {
    source->Read(NoteRead());
    stream->Write(Base::CopyOfText("x"), NoteWrite());
    loop->AddWatch(first.Get(), EPOLLIN, Base::MakeCallback([&](int fd, int) {
                     writer.Reset(open(path.c_str(), O_WRONLY | O_CLOEXEC));
                     reader.Reset(open(fullPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
                     loop->RemoveWatch(fd);
                   }));
    // In this order the kernel reports them.
    eventfd_write(first.Get(), 1);
    writer.Reset();
    reader.Reset();
  });
  AwaitRounds(2);
  EXPECT_EQ(events.Take(0), "");
  Put(writer, "more");
  EXPECT_EQ(events.Take(), "read ok more;");
  std::string taken(filler.size(), '\0');
  EXPECT_EQ(read(reader.Get(), taken.data(), taken.size()), static_cast<ssize_t>(filler.size()));
  EXPECT_EQ(events.Take(), "written ok 1;");
  Close(source);
  Close(stream);
}

// Each completion starts the next operation, and neither descriptor ever has to wait. Only a loop
// that polls calls the watch.
TEST_F(FileStreamLinuxTest, DescriptorsThatAreAlwaysReadyLetTheLoopPoll) {
  Base::UniqueFd const ready(eventfd(1, EFD_CLOEXEC));
  auto const source = MakeReader(Open("/dev/zero", O_RDONLY), 16);
  auto const sink = Open("/dev/null", O_WRONLY);
  bool isPolled = false;
  std::function<void()> const readOn = [&] {
    if (isPolled) return events.Add("read");
    source->Read(
        Base::MakeCallback([&](Base::Status const&, Base::ByteBuffer, bool) { readOn(); }));
  };
  std::function<void()> const writeOn = [&] {
    if (isPolled) return events.Add("written");
    sink->Write(Base::CopyOfText("x"),
                Base::MakeCallback([&](Base::Status const&, Base::ByteBuffer) { writeOn(); }));
  };
  OnLoop([&] {
    loop->AddWatch(ready.Get(), EPOLLIN | EPOLLONESHOT,
                   Base::MakeCallback([&](int, int) { isPolled = true; }));
    readOn();
    writeOn();
  });
  std::string const noted = events.Take(2);
  EXPECT_TRUE(noted == "read;written;" || noted == "written;read;") << noted;
  OnLoop([&] { loop->RemoveWatch(ready.Get()); });
}

}  // namespace
