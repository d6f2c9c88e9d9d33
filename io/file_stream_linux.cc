#include "io/file_stream_linux.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("file_stream_linux");

// A file tries each read and write at once. One that would block becomes pending: the file keeps
// its callback and buffer, and arms the watch. The watch has the events of what is pending, and
// goes with the last pending operation. It cannot stay, as that of a socket does: epoll(7) reports
// a hang-up even to a watch without events, and a pipe's would be reported in every round of the
// loop until the file closes.
//
// An event only says when to try again; the system call decides what has happened:
//   - A hang-up is no end by itself, because there may be bytes left to read. read(2) finds the
//     bytes first and the end after them.
//   - An error event is what read(2) or write(2) then fails with, such as EPIPE.
//   - EAGAIN means that another process was faster, and the operation still waits. The exception is
//     a terminal whose other side is gone: it goes on to fail with EAGAIN while epoll reports the
//     hang-up in every round. That ends the operation with EIO. The event may be out of date: a
//     FIFO gets a new writer or reader after its hang-up. So poll(2) confirms the hang-up first.
//
// The read goes before the write. Their completions are posted, so no callback changes the file
// between the two; the failed read ends the write as well.
//
// `Close` ends what is pending before it closes the descriptor, so it reports also when close(2)
// fails. A descriptor that is always ready, such as /dev/zero, never waits: its completions are
// posted through a step budget, or the loop would not poll again as long as its reader reads on.

namespace IO {

namespace {

constexpr unsigned completionsPerRound = 16;

bool Has(int events, std::uint32_t bits) {
  return (static_cast<std::uint32_t>(events) & bits) != 0;
}

// Whether the event was a hang-up or an error, and the descriptor still reports one.
bool IsOver(int events, Base::UniqueFd const& fd) {
  if (!Has(events, EPOLLHUP | EPOLLERR)) return false;
  pollfd state{fd.Get(), 0, 0};
  return poll(&state, 1, 0) == 1;  // poll(2) reports both without being asked
}

// Reads or writes once, by `call`, and again after a signal: a terminal looks for signals even when
// it does not block.
template <typename Call, typename Bytes>
ssize_t Transfer(Call call, Base::UniqueFd const& fd, Bytes const& data) {
  ssize_t length = -1;
  do {
    length = call(fd.Get(), data.GetData(), data.GetLength());
  } while (length == -1 && errno == EINTR);
  return length;
}

Base::Status StatusOf(int error) { return Base::Exception(Base::ErrnoText(error)); }

}  // namespace

FileStreamLinux::FileStreamLinux(Base::UniqueFd fd, Base::Shared<Base::ThreadLinux> ioThread)
    : _fd(std::move(fd)), _ioThread(std::move(ioThread)) {
  if (!_fd) {
    TRACE_ERROR("Invalid file", Trace::As("fd", _fd.Get()));
    throw Base::Exception("Invalid file");
  }
  int const flags = fcntl(_fd.Get(), F_GETFL);
  if (flags == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to read attached file access mode", Trace::As("fd", _fd.Get()), error);
    throw Base::ExceptionPosix(error);
  }
  if (fcntl(_fd.Get(), F_SETFL, flags | O_NONBLOCK) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to set attached file non blocking", Trace::As("fd", _fd.Get()), error);
    throw Base::ExceptionPosix(error);
  }
  TRACE_VERBOSE("Attached file", this, Trace::As("fd", _fd.Get()), flags);
}

void FileStreamLinux::ThrowIfClosed(std::string_view message, Buffer const& data) {
  if (_fd) return;
  if (Trace::IsTraceEnabled(Trace::levelError)) {
    Trace::WriteLine(*traceModule, Trace::levelError, message, Trace::As("this", this),
                     Trace::As("data", data));
  }
  throw Base::Exception("File closed");
}

template <typename Callback, typename... Results>
void FileStreamLinux::Post(Callback callback, Results... results) {
  if (!_budget) _budget.emplace(_ioThread, completionsPerRound);
  _budget->Post(Base::MakeCallback(
      [self = Base::Shared(this), callback = std::move(callback),
       ... results = std::move(results)]() mutable { callback->Call(std::move(results)...); }));
}

void FileStreamLinux::Read(Buffer data, ReadCallback callback) {
  ThrowIfClosed("Attempt to read from closed file", data);
  if (_read) {
    TRACE_ERROR("Attempt to read from already reading file", this, data);
    throw Base::Exception("File already reading");
  }
  if (!callback) {
    TRACE_ERROR("Attempt to read with invalid callback", this);
    throw Base::Exception("Invalid Callback");
  }
  ssize_t const bytesRead = Transfer(&read, _fd, data);
  int const error = errno;
  if (bytesRead >= 0) {
    TRACE_VERBOSE("Read succeeded", this, data, bytesRead);
    Post(std::move(callback), Base::Status(), data.Slice(0, static_cast<std::size_t>(bytesRead)),
         bytesRead == 0);
  } else if (error == EAGAIN) {
    TRACE_DEBUG("Read will complete async", this, data, error);
    Arm(EPOLLIN);
    _read = {std::move(callback), std::move(data)};
  } else {
    TRACE_ERROR("Failed to read", this, data, error);
    Post(std::move(callback), StatusOf(error), Buffer(), true);
    CloseQuietly();
  }
}

void FileStreamLinux::Write(Buffer data, WriteCallback callback) {
  ThrowIfClosed("Attempt to write to closed file", data);
  if (_write) {
    TRACE_ERROR("Attempt to write to already writing file", this, data);
    throw Base::Exception("File already writing");
  }
  if (!callback) {
    TRACE_ERROR("Attempt to write with invalid callback", this);
    throw Base::Exception("Invalid Callback");
  }
  ssize_t const bytesWritten = Transfer(&write, _fd, data);
  int const error = errno;
  if (bytesWritten >= 0) {
    TRACE_VERBOSE("Write succeeded", this, data, bytesWritten);
    Post(std::move(callback), Base::Status(),
         data.Slice(0, static_cast<std::size_t>(bytesWritten)));
  } else if (error == EAGAIN) {
    TRACE_DEBUG("Write will complete async", this, data, error);
    Arm(EPOLLOUT);
    _write = {std::move(callback), std::move(data)};
  } else {
    TRACE_ERROR("Failed to write", this, data, error);
    Post(std::move(callback), StatusOf(error), Buffer());
    CloseQuietly();
  }
}

void FileStreamLinux::Arm(std::uint32_t event) {
  if (_watchEvents == 0) {
    _ioThread->AddWatch(_fd.Get(), event,
                        Base::MakeCallback([hold = Base::WatchHold(*this)](int /*fd*/, int events) {
                          hold.GetOwner().OnEvents(events);
                        }));
  } else {
    _ioThread->UpdateWatch(_fd.Get(), _watchEvents | event);
  }
  _watchEvents |= event;
}

void FileStreamLinux::Disarm(std::uint32_t event) {
  _watchEvents &= ~event;
  if (_watchEvents == 0) {
    _ioThread->RemoveWatch(_fd.Get());
  } else {
    _ioThread->UpdateWatch(_fd.Get(), _watchEvents);
  }
}

void FileStreamLinux::OnEvents(int events) {
  TRACE_DEBUG("File watch events", this, events);
  if (Has(events, EPOLLIN | EPOLLHUP | EPOLLERR) && _read) OnReadable(events);
  if (Has(events, EPOLLOUT | EPOLLHUP | EPOLLERR) && _write) OnWritable(events);
}

void FileStreamLinux::OnReadable(int events) {
  ssize_t const bytesRead = Transfer(&read, _fd, _read.buffer);
  int error = errno;
  if (bytesRead == -1 && error == EAGAIN) {
    if (!IsOver(events, _fd)) return;  // another reader was faster; the operation still waits
    error = EIO;
  }
  Disarm(EPOLLIN);
  auto [callback, data] = _read.Take();
  if (bytesRead >= 0) {
    TRACE_DEBUG("Async file read succeeded", this, events, bytesRead);
    Post(std::move(callback), Base::Status(), data.Slice(0, static_cast<std::size_t>(bytesRead)),
         bytesRead == 0);
    return;
  }
  TRACE_ERROR("Async file read attempt failed", this, events, error);
  Post(std::move(callback), StatusOf(error), data, true);
  CloseQuietly();
}

void FileStreamLinux::OnWritable(int events) {
  ssize_t const bytesWritten = Transfer(&write, _fd, _write.buffer);
  int error = errno;
  if (bytesWritten == -1 && error == EAGAIN) {
    if (!IsOver(events, _fd)) return;
    error = EIO;
  }
  Disarm(EPOLLOUT);
  auto [callback, data] = _write.Take();
  if (bytesWritten >= 0) {
    TRACE_DEBUG("Async file write succeeded", this, events, bytesWritten);
    Post(std::move(callback), Base::Status(),
         data.Slice(0, static_cast<std::size_t>(bytesWritten)));
    return;
  }
  TRACE_ERROR("Async file write failed", this, events, error);
  Post(std::move(callback), StatusOf(error), data);
  CloseQuietly();
}

void FileStreamLinux::OnWatchDropped() noexcept {
  if (_watchEvents == 0) return;  // the file removed its watch, since nothing waited any more
  _watchEvents = 0;
  // Out of their fields before they are destroyed: that may lead back to this file.
  auto const write = _write.Take();
  auto const read = _read.Take();
}

void FileStreamLinux::Close() {
  if (!_fd) return;
  TRACE_VERBOSE("Closing file...", this, Trace::As("fd", _fd.Get()));
  Base::UniqueFd fd = std::move(_fd);  // closed whatever happens
  EndPendingOperations();
  if (std::exchange(_watchEvents, 0) != 0) _ioThread->RemoveWatch(fd.Get());
  if (close(fd.Release()) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to close file.", this, error);
    throw Base::ExceptionPosix(error);
  }
  TRACE_VERBOSE("Close file succeeded.", this);
}

void FileStreamLinux::CloseQuietly() {
  try {
    Close();
  } catch (Base::Exception const&) {
    // Already logged; the operation that failed has reported why.
  }
}

void FileStreamLinux::EndPendingOperations() {
  Base::Status const status = Base::Exception("File closed");
  if (_write) {
    auto [callback, data] = _write.Take();
    Post(std::move(callback), status, std::move(data));
  }
  if (_read) {
    auto [callback, data] = _read.Take();
    Post(std::move(callback), status, std::move(data), true);
  }
}

FileReadStreamLinux::FileReadStreamLinux(Base::Shared<FileStreamLinux> file, std::size_t bufferSize)
    : SingleReadStream(traceModule, bufferSize), _file(std::move(file)) {}

void FileReadStreamLinux::ReadOnce(Base::ByteBuffer buffer, Callback callback) {
  _file->Read(std::move(buffer), std::move(callback));
}

void FileReadStreamLinux::CloseSource() { std::exchange(_file, {})->Close(); }

FileWriteStreamLinux::FileWriteStreamLinux(Base::Shared<FileStreamLinux> file)
    : WholeWriteStream(traceModule), _file(std::move(file)) {
  TRACE_VERBOSE("Created write stream", this);
}

void FileWriteStreamLinux::WriteOnce(Base::ByteBuffer data, Callback callback) {
  if (!_file) {
    TRACE_ERROR("Attempt to write to closed stream", this);
    throw Base::Exception("Write Stream Closed");
  }
  _file->Write(std::move(data), std::move(callback));
}

void FileWriteStreamLinux::Close() {
  if (!_file) return;
  TRACE_VERBOSE("Closing write stream", this);
  std::exchange(_file, {})->Close();
}

}  // namespace IO
