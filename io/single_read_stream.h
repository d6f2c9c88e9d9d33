#pragma once

#include <cstddef>

#include "base/buffer.h"
#include "base/shared.h"
#include "io/file_stream.h"
#include "trace/trace.h"

namespace IO {

// A byte source whose reads are single reads of a socket or a file: the common base of both.
class SingleReadStream : public FileReadStream {
 public:
  // Throw what the first read of the source throws.
  void Read(Callback callback) final;
  void ReadInto(Base::ByteBuffer buffer, Callback callback) final;

  void Close() final;

 protected:
  // Logs as `log`, the module of the derived stream. `bufferSize` in bytes: the most that one
  // `Read` returns.
  SingleReadStream(Base::Shared<Trace::Log> log, std::size_t bufferSize);

  // Reads once into `buffer`, as `ReadInto` does. Never called after `CloseSource`.
  virtual void ReadOnce(Base::ByteBuffer buffer, Callback callback) = 0;

  // Releases the source; called once at most.
  virtual void CloseSource() = 0;

 private:
  void ThrowIfClosed() const;

  Base::Shared<Trace::Log> const _log;
  std::size_t const _bufferSize;
  bool _isClosed = false;
};

}  // namespace IO
