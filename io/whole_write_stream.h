#pragma once

#include <cstddef>

#include "base/buffer.h"
#include "base/shared.h"
#include "base/stream.h"
#include "io/file_stream.h"
#include "trace/trace.h"

namespace IO {

// A byte sink that repeats single writes until all data is written: the common base of sinks over a
// socket and over a file.
class WholeWriteStream : public FileWriteStream {
 public:
  // Calls back exactly once with all of `data`, after its last byte or the first error. Throws what
  // the first `WriteOnce` throws; the callback reports what a later one throws.
  void Write(Base::Buffer<unsigned char> data, Callback callback) final;

 protected:
  // Logs as `log`, the module of the derived stream.
  explicit WholeWriteStream(Base::Shared<Trace::Log> log);

  // Writes once; calls back with the part of `data` that was taken, which may be all. It takes at
  // least one byte of data that is not empty, or `Write` would repeat it without end.
  virtual void WriteOnce(Base::Buffer<unsigned char> data, Callback callback) = 0;

 private:
  using Buffer = Base::Buffer<unsigned char>;

  void Send(std::size_t offset, Buffer total, Callback callback);
  void OnWritten(Base::Status const& status, Buffer const& written, std::size_t offset,
                 Buffer const& total, Callback const& callback);

  Base::Shared<Trace::Log> const _log;
};

}  // namespace IO
