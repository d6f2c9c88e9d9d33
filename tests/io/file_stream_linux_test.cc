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

  // The other way round. The pipe is full: a write has to wait.
  Base::Shared<IO::FileWriteStreamLinux> MakeSink(Base::UniqueFd& source) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    source.Reset(ends[0]);
    filling = std::string(static_cast<std::size_t>(fcntl(ends[1], F_GETPIPE_SZ)), 'f');
    EXPECT_EQ(write(ends[1], filling.data(), filling.size()), static_cast<ssize_t>(filling.size()));
    return Base::MakeShared<IO::FileWriteStreamLinux>(Attach(ends[1]));
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

  // Starts `work`, which goes on until a watch, which only a loop that polls calls, sets its flag.
  void WorkUntilPolled(std::function<void(bool const& isPolled)> const& work) {
    Base::UniqueFd const ready(eventfd(1, EFD_CLOEXEC));
    bool isPolled = false;
    OnLoop([&] {
      loop->AddWatch(ready.Get(), EPOLLIN | EPOLLONESHOT,
                     Base::MakeCallback([&](int, int) { isPolled = true; }));
      work(isPolled);
    });
    events.Take();
    OnLoop([&] { loop->RemoveWatch(ready.Get()); });
    EXPECT_TRUE(isPolled);
  }

  TemporaryDirectory directory;
  std::string filling;
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

TEST_F(FileStreamLinuxTest, AWriteInPiecesIsReportedOnceAndWhole) {
  Base::UniqueFd source;
  auto const sink = MakeSink(source);
  std::string text(1U << 20U, '\0');
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i % 251);
  Write(sink, text);
  std::string received;
  std::array<char, 5000> piece;
  while (received.size() < filling.size() + text.size()) {
    ssize_t const length = read(source.Get(), piece.data(), piece.size());
    ASSERT_GT(length, 0);
    received.append(piece.data(), static_cast<std::size_t>(length));
  }
  EXPECT_EQ(events.Take(), "written ok " + std::to_string(text.size()) + ";");
  EXPECT_TRUE(received == filling + text);
  Close(sink);
  EXPECT_EQ(read(source.Get(), piece.data(), piece.size()), 0) << "the end";
  EXPECT_EQ(ErrorOf([&] { sink->Write({}, NoteWrite()); }), "Write Stream Closed");
}

TEST_F(FileStreamLinuxTest, AnErrorArrivesOnceAndEndsTheFile) {
  Base::UniqueFd source;
  auto const atOnce = MakeSink(source);
  source.Reset();
  Write(atOnce, "x");
  EXPECT_EQ(events.Take(), "written Broken pipe (Err 32) 1;");

  auto const unreadable = MakeReader(Open(directory.path.string(), O_RDONLY), 16);
  Read(unreadable);
  EXPECT_EQ(events.Take(), "read Is a directory (Err 21)  end;");
  EXPECT_EQ(ErrorOf([&] { unreadable->Read(NoteRead()); }), "File closed");
  EXPECT_EQ(ErrorOf([&] { Attach(-1); }), "Invalid file");
}

// The master's side goes on to say that it would block.
TEST_F(FileStreamLinuxTest, ATerminalWhoseOtherSideIsGoneEndsItsWrite) {
  int const master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_EQ(grantpt(master) | unlockpt(master), 0);
  Base::UniqueFd terminal(open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios mode{};
  tcgetattr(terminal.Get(), &mode);
  cfmakeraw(&mode);
  ASSERT_EQ(tcsetattr(terminal.Get(), TCSANOW, &mode), 0);
  auto const sink = Base::MakeShared<IO::FileWriteStreamLinux>(Attach(master));
  Write(sink, std::string(1U << 20U, 'x'));
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

// Both wait at once for one descriptor, and neither's end may be lost by the other's.
TEST_F(FileStreamLinuxTest, ATerminalIsReadAndWrittenAtATime) {
  Base::UniqueFd const master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(grantpt(master.Get()) | unlockpt(master.Get()), 0);
  auto const terminal = Open(ptsname(master.Get()), O_RDWR | O_NOCTTY);
  std::string const text(100000, 'x');
  OnLoop([&] {
    terminal->Read(Base::ByteBuffer::Zeroed(16), NoteRead());
    Base::MakeShared<IO::FileWriteStreamLinux>(terminal)->Write(Base::CopyOfText(text),
                                                                NoteWrite());
  });
  Put(master, "line\n");
  EXPECT_EQ(events.Take(), "read ok line\n;");
  std::array<char, 4096> piece;
  for (std::ptrdiff_t length = 0; length < static_cast<std::ptrdiff_t>(text.size());) {
    ssize_t const count = read(master.Get(), piece.data(), piece.size());
    ASSERT_GT(count, 0);
    length += std::count(piece.begin(), piece.begin() + count, 'x');  // and not of the echo
  }
  EXPECT_EQ(events.Take(), "written ok 100000;");
  Close(terminal);
}

// Each completion starts the next operation, and the descriptor never has to wait.
TEST_F(FileStreamLinuxTest, ADescriptorThatIsAlwaysReadyLetsTheLoopPoll) {
  std::function<void()> next;
  auto const goOn = [&](bool const& isPolled) {
    if (isPolled) {
      events.Add("enough");
    } else {
      next();
    }
  };
  auto const source = MakeReader(Open("/dev/zero", O_RDONLY), 16);
  WorkUntilPolled([&](bool const& isPolled) {
    next = [&] {
      source->Read(
          Base::MakeCallback([&](Base::Status const&, Base::ByteBuffer, bool) { goOn(isPolled); }));
    };
    next();
  });
  auto const sink = Open("/dev/null", O_WRONLY);
  WorkUntilPolled([&](bool const& isPolled) {
    next = [&] {
      sink->Write(
          Base::CopyOfText("x"),
          Base::MakeCallback([&](Base::Status const&, Base::ByteBuffer) { goOn(isPolled); }));
    };
    next();
  });
}

}  // namespace
