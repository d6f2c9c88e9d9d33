#pragma once

#include <cstddef>
#include <cstdint>

#include "base/buffer.h"
#include "base/callback.h"
#include "base/shared.h"
#include "base/stream.h"
#include "io/file_stream.h"

namespace IO {

// Cuts a byte stream into packets, one per `Read`. A packet of length 0 reads as its end.
//
//   offset  size  field
//   0       4     n, the payload's length in bytes: unsigned, host byte order
//   4       n     payload, unterminated and unpadded
//
// Threads:  the thread where the source completes, which also calls back: the IO thread or another
//           loop. From a thread without a loop, an outcome that this stream finds is posted to the
//           process-wide IO thread.
// Lifetime: a pending `Read` holds the stream, so it completes also without other handles.
class NativeMessagingHostReadStream final : public Base::ReadStream<Base::Buffer<unsigned char>> {
 public:
  // Called with the length of a payload before its memory is allocated and read.
  using BegunCallback = Base::Shared<Base::CallbackNoCopy<std::uint32_t>>;

  // Accepts payloads of up to `maxPacketSize` bytes, that size included. `onBegun` may be empty; a
  // packet that it refuses, by throwing, fails with the text of the exception, and its payload
  // stays unread. Throws Base::Exception "Invalid Argument" when `source` is empty.
  NativeMessagingHostReadStream(Base::Shared<FileReadStream> source, std::uint32_t maxPacketSize,
                                BegunCallback onBegun = {});

  // Reads one packet; calls back exactly once, never from inside this call, with
  // (status, payload, complete). `complete` is the end of the stream: success and no payload, or
  // the last payload when the source reports its end along with the last bytes. Failures: the
  // source's own; "Invalid Header Size"; "Unexpected End Of Stream"; "Max Packet Size Exceeded",
  // which leaves the payload unread; "Read Stream Closed" after a `Close` between two reads of the
  // source. Throws what the source throws at once. One read at a time, none after `Close`.
  void Read(Callback callback) override;

  // Closes the source and releases it; a second call does nothing.
  void Close() override;

 private:
  using Buffer = Base::Buffer<unsigned char>;

  void OnSizeRead(Base::Status const& err, Buffer const& sizeBuffer, bool complete,
                  Callback const& callback);
  void ReadData(Buffer const& allData, std::size_t remaining, Callback const& callback);
  void OnDataRead(Base::Status const& err, Buffer const& data, bool complete, Buffer const& allData,
                  std::size_t remaining, Callback const& callback);

  Base::Shared<FileReadStream> _source;  // empty once closed
  std::uint32_t const _maxPacketSize;
  BegunCallback const _onBegun;
};

}  // namespace IO
