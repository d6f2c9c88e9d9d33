#include "io/native_messaging_host_write_stream.h"

#include <cstdint>
#include <cstring>
#include <exception>
#include <utility>

#include "base/exception.h"
#include "trace/hex.h"
#include "trace/trace.h"

TRACE_MODULE("native_messaging_host_write_stream");

namespace IO {

NativeMessagingHostWriteStream::NativeMessagingHostWriteStream(
    Base::Shared<FileWriteStream> destination)
    : _destination(std::move(destination)) {
  if (!_destination) {
    TRACE_ERROR("Failed to create native messaging write stream without destination");
    throw Base::Exception("Invalid Argument");
  }
  TRACE_VERBOSE("Native messaging host write stream created", this);
}

void NativeMessagingHostWriteStream::Write(Buffer data, Callback callback) {
  auto const dataLength = static_cast<std::uint32_t>(data.GetLength());
  auto sizeBuffer = Buffer::Zeroed(sizeof dataLength);
  std::memcpy(sizeBuffer.GetData(), &dataLength, sizeof dataLength);
  TRACE_DEBUG("Writing size", this, dataLength);
  _destination->Write(
      std::move(sizeBuffer),
      Base::MakeCallback([self = Base::Shared(this), data = std::move(data),
                          callback = std::move(callback)](Base::Status const& err, Buffer size) {
        self->OnSizeWritten(err, size, data, callback);
      }));
}

void NativeMessagingHostWriteStream::OnSizeWritten(Base::Status const& err, Buffer const& size,
                                                   Buffer const& data, Callback const& callback) {
  if (err) {
    TRACE_ERROR("Failed to write size", this, err, size);
    callback->Call(err, data);
    return;
  }
  TRACE_DEBUG("Writing data", this, data, Trace::As("sizeHex", Trace::ToHex(size.GetSpan())));
  if (data.GetLength() == 0) {
    // On a packet socket a write of no bytes would be an empty record.
    OnDataWritten(err, data, callback);
    return;
  }
  try {
    if (!_destination) throw Base::Exception("Write Stream Closed");  // between the two writes
    _destination->Write(data, Base::MakeCallback([self = Base::Shared(this), data, callback](
                                                     Base::Status const& status, Buffer) {
                          self->OnDataWritten(status, data, callback);
                        }));
  } catch (std::exception const& thrown) {
    // No caller is on the stack to catch it, and the caller still waits for its callback.
    OnDataWritten(Base::Exception(thrown.what()), data, callback);
  }
}

void NativeMessagingHostWriteStream::OnDataWritten(Base::Status const& err, Buffer const& data,
                                                   Callback const& callback) {
  if (err) {
    TRACE_ERROR("Failed to write data", this, err);
  } else {
    TRACE_DEBUG("Write complete", this, data, Trace::As("dataHex", Trace::ToHex(data.GetSpan())));
  }
  callback->Call(err, data);
}

void NativeMessagingHostWriteStream::Close() {
  if (!_destination) return;
  TRACE_VERBOSE("Native messaging host write stream closed", this);
  _destination->Close();
  _destination.Reset();
}

}  // namespace IO
