#pragma once

#include "base/buffer.h"
#include "base/stream.h"

namespace IO {

// A source of bytes. `Read` hands out a buffer of the stream's own choosing.
class FileReadStream : public Base::ReadStream<Base::Buffer<unsigned char>> {
 public:
  // Reads once into the caller's `buffer`; calls back with the view of it that was filled. One read
  // at a time, none after `Close`.
  virtual void ReadInto(Base::Buffer<unsigned char> buffer, Callback callback) = 0;
};

// A sink of bytes.
class FileWriteStream : public Base::WriteStream<Base::Buffer<unsigned char>> {};

}  // namespace IO
