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
#include "io/pending_operation.h"
#include "io/single_read_stream.h"
#include "io/whole_write_stream.h"

namespace IO {

// A non-blocking descriptor of whatever read(2) and write(2) take: a pipe, a FIFO, a terminal, a
// regular file. One read and one write may be pending at a time.
//
// A read or write throws at its caller, and then never calls back, or calls back exactly once, as a
// task of the IO thread and never from inside the call. It is tried at once; one that would block
// waits for a watch on the IO thread's loop. `Close` and an error end whatever is pending and close
// the file: every later operation throws "File closed".
//
// A descriptor that is always ready has a step budget: after a few completions in a row the loop
// polls before the next. One that epoll(7) refuses, such as a regular file, is always ready; the
// thread blocks while the disk works.
//
// Threads:  the constructor on any thread, all else on the IO thread.
// Lifetime: a pending operation holds the file, its callback and its buffer until it completes. The
//           end of the loop discards pending operations without calling back.
// Errors:   each after an ERROR line: those below; "Invalid Callback" for an empty callback; "File
//           closed". A read or write that fails reports the text of its errno.
// Signals:  a write to a pipe without a reader raises SIGPIPE, which the process has to survive.
class FileStreamLinux final : public Base::Shareable {
 public:
  using Buffer = Base::ByteBuffer;
  using ReadCallback = Base::ReadCallback<Buffer>;    // status, what was read, end of file
  using WriteCallback = Base::WriteCallback<Buffer>;  // status, what was written

  // Takes over an open descriptor and makes it non-blocking, for every process that shares its open
  // file description. Throws "Invalid file" for an empty `fd`, Base::ExceptionPosix when the
  // descriptor's flags cannot be read or set.
  FileStreamLinux(Base::UniqueFd fd, Base::Shared<Base::ThreadLinux> ioThread);

  // Reads once into `data`: calls back with the part that was filled. The end of the file is a read
  // without an error and without a byte. Throws "File already reading".
  void Read(Buffer data, ReadCallback callback);

  // Writes once: calls back with the part of `data` that the kernel took. Throws "File already
  // writing".
  void Write(Buffer data, WriteCallback callback);

  // Ends every pending operation with "File closed" and closes the descriptor; a second call does
  // nothing. Throws Base::ExceptionPosix when close(2) fails; the descriptor is gone all the same.
  void Close();

 private:
  friend Base::WatchHold<FileStreamLinux>;

  // Throws "File closed" after that; `message` says what was attempted.
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
  PendingOperation<WriteCallback> _write;
  PendingOperation<ReadCallback> _read;
};

// A file as a byte source: each read is one read(2). `Close` closes the file: a process that writes
// to the pipe learns that it has no reader any more.
class FileReadStreamLinux final : public SingleReadStream {
 public:
  // `bufferSize` in bytes: the most that one `Read` returns.
  FileReadStreamLinux(Base::Shared<FileStreamLinux> file, std::size_t bufferSize);

 private:
  void ReadOnce(Base::ByteBuffer buffer, Callback callback) override;
  void CloseSource() override;

  Base::Shared<FileStreamLinux> _file;  // empty once closed
};

// A file as a byte sink: a write goes on until the kernel has taken all of it.
class FileWriteStreamLinux final : public WholeWriteStream {
 public:
  explicit FileWriteStreamLinux(Base::Shared<FileStreamLinux> file);

  // Closes the file: the reader of a pipe finds its end. Later, `Write` throws "Write Stream
  // Closed"; a write under way ends with that or with "File closed".
  void Close() override;

 private:
  void WriteOnce(Base::ByteBuffer data, Callback callback) override;

  Base::Shared<FileStreamLinux> _file;  // empty once closed
};

}  // namespace IO
