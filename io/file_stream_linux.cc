#include "io/file_stream_linux.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("file_stream_linux");

// What epoll says of a descriptor is only when to try again: a hang-up or an error is what read(2)
// or write(2) then makes of it. A hang-up is no end by itself, for it comes while there are still
// bytes to read; and a watch of which nothing is asked would go on reporting it. So there is a
// watch only while an operation waits.

namespace IO {

namespace {

constexpr unsigned completionsPerRound = 16;

bool Has(int events, std::uint32_t bits) {
  return (static_cast<std::uint32_t>(events) & bits) != 0;
}

// A terminal whose other side is gone would still block, and be reported without end.
bool IsOver(int events) { return Has(events, EPOLLHUP | EPOLLERR); }

// Reads or writes once, by `call`. A signal is no outcome: a terminal looks for one even where it
// does not wait.
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
  if (_readCallback) {
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
    _readCallback = std::move(callback);
    _readBuffer = std::move(data);
  } else {
    TRACE_ERROR("Failed to read", this, data, error);
    Post(std::move(callback), StatusOf(error), Buffer(), true);
    CloseQuietly();
  }
}

void FileStreamLinux::Write(Buffer data, WriteCallback callback) {
  ThrowIfClosed("Attempt to write to closed file", data);
  if (_writeCallback) {
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
    _writeCallback = std::move(callback);
    _writeBuffer = std::move(data);
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
  if (Has(events, EPOLLIN | EPOLLHUP | EPOLLERR) && _readCallback) OnReadable(events);
  if (Has(events, EPOLLOUT | EPOLLHUP | EPOLLERR) && _writeCallback) OnWritable(events);
}

void FileStreamLinux::OnReadable(int events) {
  ssize_t const bytesRead = Transfer(&read, _fd, _readBuffer);
  int error = errno;
  if (bytesRead == -1 && error == EAGAIN) {
    if (!IsOver(events)) return;  // somebody else was faster; it still waits
    error = EIO;
  }
  Disarm(EPOLLIN);
  // Out of their fields first: what follows ends what is pending.
  ReadCallback callback = std::exchange(_readCallback, {});
  Buffer const data = std::exchange(_readBuffer, {});
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
  ssize_t const bytesWritten = Transfer(&write, _fd, _writeBuffer);
  int error = errno;
  if (bytesWritten == -1 && error == EAGAIN) {
    if (!IsOver(events)) return;
    error = EIO;
  }
  Disarm(EPOLLOUT);
  WriteCallback callback = std::exchange(_writeCallback, {});
  Buffer const data = std::exchange(_writeBuffer, {});
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
  if (_watchEvents == 0) return;  // taken away by the file itself, which has reported what waited
  _watchEvents = 0;
  // Out of their fields first: what goes with them may come back to this file.
  auto const writeCallback = std::exchange(_writeCallback, {});
  auto const readCallback = std::exchange(_readCallback, {});
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
  if (_writeCallback) {
    Post(std::exchange(_writeCallback, {}), status, std::exchange(_writeBuffer, {}));
  }
  if (_readCallback) {
    Post(std::exchange(_readCallback, {}), status, std::exchange(_readBuffer, {}), true);
  }
}

FileReadStreamLinux::FileReadStreamLinux(Base::Shared<FileStreamLinux> file, std::size_t bufferSize)
    : _file(std::move(file)), _bufferSize(bufferSize) {
  TRACE_VERBOSE("Created read stream", this, bufferSize);
}

void FileReadStreamLinux::Read(Callback callback) {
  GetOpenFile().Read(_bufferSize == 0 ? Base::ByteBuffer() : Base::ByteBuffer::Zeroed(_bufferSize),
                     std::move(callback));
}

void FileReadStreamLinux::ReadInto(Base::Buffer<unsigned char> buffer, Callback callback) {
  GetOpenFile().Read(std::move(buffer), std::move(callback));
}

void FileReadStreamLinux::Close() {
  if (!_file) return;
  TRACE_VERBOSE("Closing read stream", this);
  std::exchange(_file, {})->Close();
}

FileStreamLinux& FileReadStreamLinux::GetOpenFile() const {
  if (!_file) {
    TRACE_ERROR("Attempt to read from closed stream", this);
    throw Base::Exception("Read Stream Closed");
  }
  return *_file;
}

FileWriteStreamLinux::FileWriteStreamLinux(Base::Shared<FileStreamLinux> file)
    : WholeWriteStream(traceModule), _file(std::move(file)) {
  TRACE_VERBOSE("Created write stream", this);
}

void FileWriteStreamLinux::WriteOnce(Base::Buffer<unsigned char> data, Callback callback) {
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
