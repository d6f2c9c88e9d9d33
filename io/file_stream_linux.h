#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "base/buffer.h"
#include "base/loop/step_budget.h"
#include "base/loop/thread_linux.h"
#include "base/loop/watch_hold.h"
#include "base/shared.h"
#include "base/stream.h"
#include "base/unique_fd.h"
#include "io/file_stream.h"
#include "io/whole_write_stream.h"

namespace IO {

// A non-blocking descriptor of whatever read(2) and write(2) take: a pipe, a FIFO, a terminal, a
// regular file. One read and one write may be pending at a time.
//
// Reads and writes are tried at once; what would block waits for a watch on the IO thread's loop,
// which is there for only as long. Either way the callback is posted, never called from inside the
// operation, and exactly once: also by `Close` and by an error, which end whatever is pending; but
// the loop's end lets go of what is pending without calling back.
// There is no way back from either: "File closed" is what every later operation throws. A
// descriptor that is always ready takes turns: after a few completions in a row the loop polls
// before the next. One that epoll(7) refuses, such as a regular file, is always ready; the thread
// waits for its disk.
//
// Threads:  the constructor on any thread, all else on the IO thread.
// Lifetime: a pending operation holds the file, and so do completions that are under way.
// Errors:   "Invalid file", "File already reading", "File already writing", "Invalid Callback",
//           "File closed". Base::ExceptionPosix for failed system calls. Each after an ERROR line.
// Signals:  a write to a pipe that nobody reads raises SIGPIPE, which the process has to survive.
class FileStreamLinux final : public Base::Shareable {
 public:
  using Buffer = Base::Buffer<unsigned char>;
  using ReadCallback = Base::ReadCallback<Buffer>;    // status, what was read, end of file
  using WriteCallback = Base::WriteCallback<Buffer>;  // status, what was written

  // Takes over an open descriptor and makes it non-blocking, for everyone who shares its open file
  // description.
  FileStreamLinux(Base::UniqueFd fd, Base::Shared<Base::ThreadLinux> ioThread);

  // Reads once into `data`: the callback gets the part that was filled. The end of the file is a
  // read without an error and without a byte.
  void Read(Buffer data, ReadCallback callback);

  // Writes once: the callback gets the part of `data` that was taken.
  void Write(Buffer data, WriteCallback callback);

  // Ends every pending operation with "File closed" and closes the descriptor; a second call does
  // nothing. Throws Base::ExceptionPosix when close(2) fails; the descriptor is gone all the same.
  void Close();

 private:
  friend Base::WatchHold<FileStreamLinux>;

  // The file throws "File closed" once it is; `message` says what was attempted.
  void ThrowIfClosed(std::string_view message, Buffer const& data);

  void Arm(std::uint32_t event);
  void Disarm(std::uint32_t event);
  void OnEvents(int events);
  void OnReadable(int events);
  void OnWritable(int events);
  void OnWatchDropped() noexcept;
  void CloseQuietly();
  void EndPendingOperations();

  template <typename Callback, typename... Results>
  void Post(Callback callback, Results... results);

  Base::UniqueFd _fd;  // empty once closed
  Base::Shared<Base::ThreadLinux> _ioThread;
  std::optional<Base::StepBudget> _budget;  // made on the loop's thread
  std::uint32_t _watchEvents = 0;           // the watch's interest; none: there is no watch
  WriteCallback _writeCallback;
  Buffer _writeBuffer;
  ReadCallback _readCallback;
  Buffer _readBuffer;
};

// A file as a byte source: each read is one read(2).
class FileReadStreamLinux final : public FileReadStream {
 public:
  // `bufferSize` in bytes: the most that one `Read` hands out.
  FileReadStreamLinux(Base::Shared<FileStreamLinux> file, std::size_t bufferSize);

  // Throw Base::Exception "Read Stream Closed" after `Close`, else as the file's `Read`.
  void Read(Callback callback) override;
  void ReadInto(Base::Buffer<unsigned char> buffer, Callback callback) override;

  // Closes the file: who writes to a pipe learns that nobody reads it any more.
  void Close() override;

 private:
  FileStreamLinux& GetOpenFile() const;

  Base::Shared<FileStreamLinux> _file;  // empty once closed
  std::size_t const _bufferSize;
};

// A file as a byte sink: a write goes on until the kernel has taken all of it.
class FileWriteStreamLinux final : public WholeWriteStream {
 public:
  explicit FileWriteStreamLinux(Base::Shared<FileStreamLinux> file);

  // Closes the file: who reads from a pipe finds its end. `Write` throws "Write Stream Closed"
  // after it; a write that is not through ends with an error.
  void Close() override;

 private:
  void WriteOnce(Base::Buffer<unsigned char> data, Callback callback) override;

  Base::Shared<FileStreamLinux> _file;  // empty once closed
};

}  // namespace IO
