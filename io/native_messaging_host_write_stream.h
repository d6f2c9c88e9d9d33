#pragma once

#include "base/buffer.h"
#include "base/shared.h"
#include "base/stream.h"
#include "io/file_stream.h"

namespace IO {

// Writes packets, each a length and a payload: the format is the read stream's.
//
// Threads:  the IO thread, where the destination completes.
// Lifetime: a pending `Write` holds the stream.
class NativeMessagingHostWriteStream final : public Base::WriteStream<Base::Buffer<unsigned char>> {
 public:
  // Throws Base::Exception "Invalid Argument" when `destination` is empty.
  explicit NativeMessagingHostWriteStream(Base::Shared<FileWriteStream> destination);

  // Writes one packet whose payload is `data`, as two writes on the destination, the length and the
  // payload; an empty payload is the length alone. The length is the low 32 bits of the payload's.
  // Calls back exactly once, never from inside this call, with (status, data). Failures: the
  // destination's own; "Write Stream Closed" after a `Close` between the two writes. Throws what
  // the first write throws. One write at a time, none after `Close`.
  void Write(Base::Buffer<unsigned char> data, Callback callback) override;

  // Closes the destination and releases it; a second call does nothing.
  void Close() override;

 private:
  using Buffer = Base::Buffer<unsigned char>;

  void OnSizeWritten(Base::Status const& err, Buffer const& size, Buffer const& data,
                     Callback const& callback);
  void OnDataWritten(Base::Status const& err, Buffer const& data, Callback const& callback);

  Base::Shared<FileWriteStream> _destination;  // empty once closed
};

}  // namespace IO
