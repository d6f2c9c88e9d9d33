#pragma once

#include "base/buffer.h"
#include "base/stream.h"

namespace IO {

// A source of bytes. `Read` reads into a buffer that the stream makes.
//
// A read throws at its caller or calls back exactly once, never from inside the call, with
//
//   status     empty, or why the read failed
//   data       the part of the buffer that was filled; meaningless after a failure
//   complete   whether the source has ended: with no bytes, or along with the last ones
//
// Threads:  the IO thread, where the callback runs.
// Errors:   throw "Read Stream Closed" after `Close`, else what the source throws: see
// `Net::Socket`
//           and `FileStreamLinux`. A failed read reports an errno's text.
// Lifetime: a pending read holds its callback and its buffer, which the caller leaves alone
//           meanwhile.
class FileReadStream : public Base::ReadStream<Base::ByteBuffer> {
 public:
  // Reads once into the caller's `buffer`. One read at a time, `Read` or `ReadInto`.
  virtual void ReadInto(Base::ByteBuffer buffer, Callback callback) = 0;
};

// A sink of bytes.
//
// A write throws at its caller or calls back exactly once, never from inside the call, with the
// status and all of `data`. After a failure the caller cannot tell how many bytes were taken.
//
// Threads:  the IO thread, where the callback runs.
// Errors:   throws what the sink throws; a write that is under way when the stream closes reports
//           "Write Stream Closed" or the sink's own error. A failed write reports an errno's text.
// Lifetime: a pending write holds the stream, its callback and its data.
class FileWriteStream : public Base::WriteStream<Base::ByteBuffer> {};

}  // namespace IO
