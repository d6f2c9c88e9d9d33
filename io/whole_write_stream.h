#pragma once

#include <cstddef>

#include "base/buffer.h"
#include "base/shared.h"
#include "base/stream.h"
#include "io/file_stream.h"
#include "trace/trace.h"

namespace IO {

// A sink that writes its data by as many single writes as that takes: what sinks over a socket and
// over a file have in common.
class WholeWriteStream : public FileWriteStream {
 public:
  // Calls back once with all of `data`, after its last byte or the first error. Throws what the
  // first `WriteOnce` throws; what a later one throws is such an error.
  void Write(Base::Buffer<unsigned char> data, Callback callback) final;

 protected:
  // Logs as `log`, the derived stream's module.
  explicit WholeWriteStream(Base::Shared<Trace::Log> log);

  // Writes once; calls back with the part of `data` that was taken, which may be all. Where there
  // is something to take, nothing taken would be tried again without end.
  virtual void WriteOnce(Base::Buffer<unsigned char> data, Callback callback) = 0;

 private:
  using Buffer = Base::Buffer<unsigned char>;

  void Send(std::size_t offset, Buffer const& total, Callback const& callback);
  void OnWritten(Base::Status const& status, Buffer const& written, std::size_t offset,
                 Buffer const& total, Callback const& callback);

  Base::Shared<Trace::Log> const _log;
};

}  // namespace IO
