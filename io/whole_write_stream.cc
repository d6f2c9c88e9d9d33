#include "io/whole_write_stream.h"

#include <exception>
#include <utility>

#include "base/exception.h"

namespace IO {

WholeWriteStream::WholeWriteStream(Base::Shared<Trace::Log> log) : _log(std::move(log)) {}

void WholeWriteStream::Write(Buffer data, Callback callback) {
  Send(0, std::move(data), std::move(callback));
}

void WholeWriteStream::Send(std::size_t offset, Buffer total, Callback callback) {
  Buffer rest = total.Slice(offset, total.GetLength() - offset);
  // The completion holds the stream: its user may release it while bytes are still under way.
  auto onWritten = Base::MakeCallback(
      [self = Base::Shared(this), offset, total = std::move(total), callback = std::move(callback)](
          Base::Status const& status, Buffer written) {
        self->OnWritten(status, written, offset, total, callback);
      });
  WriteOnce(std::move(rest), std::move(onWritten));
}

void WholeWriteStream::OnWritten(Base::Status const& status, Buffer const& written,
                                 std::size_t offset, Buffer const& total,
                                 Callback const& callback) {
  if (status) {
    // Not an ERROR: the socket or file has already logged the failure as one.
    TRACE_TO(*_log, Trace::levelVerbose, "Error on write", this, written, total, offset);
    callback->Call(status, total);
    return;
  }
  std::size_t const newOffset = offset + written.GetLength();
  if (newOffset == total.GetLength()) {
    TRACE_TO(*_log, Trace::levelVerbose, "Write complete", this, written, total);
    callback->Call(status, total);
    return;
  }
  std::size_t const remaining = total.GetLength() - newOffset;
  TRACE_TO(*_log, Trace::levelVerbose, "Write partially completed", this, written, total, offset,
           newOffset, remaining);
  try {
    Send(newOffset, total, callback);
  } catch (std::exception const& err) {
    // No caller is on the stack to catch it, and the caller still waits for its callback.
    callback->Call(Base::Exception(err.what()), total);
  }
}

}  // namespace IO
