#include "io/native_messaging_host_read_stream.h"

#include <cstring>
#include <exception>
#include <utility>

#include "base/exception.h"
#include "base/loop/io_thread.h"
#include "base/loop/thread.h"
#include "trace/trace.h"

TRACE_MODULE("native_messaging_host_read_stream");

namespace IO {

namespace {

using Callback = NativeMessagingHostReadStream::Callback;

// Posts an outcome that this stream and not its source found.
void PostOutcome(Callback const& callback, Base::Status status, bool complete) {
  Base::Shared<Base::Thread> loop = Base::Thread::GetCurrent();
  if (!loop) loop = Base::GetIOThread();
  loop->PostTask(Base::MakeCallback(
      [callback, status = std::move(status), complete] { callback->Call(status, {}, complete); }));
}

}  // namespace

NativeMessagingHostReadStream::NativeMessagingHostReadStream(Base::Shared<FileReadStream> source,
                                                             std::uint32_t maxPacketSize,
                                                             BegunCallback onBegun)
    : _source(std::move(source)), _maxPacketSize(maxPacketSize), _onBegun(std::move(onBegun)) {
  if (!_source) {
    TRACE_ERROR("Failed to create native messaging read stream on null source");
    throw Base::Exception("Invalid Argument");
  }
  TRACE_VERBOSE("Native messaging host read stream created", this, Trace::As("source", _source),
                maxPacketSize);
}

void NativeMessagingHostReadStream::Read(Callback callback) {
  TRACE_DEBUG("Reading from source", this);
  _source->ReadInto(Buffer::Zeroed(sizeof(std::uint32_t)),
                    Base::MakeCallback([self = Base::Shared(this), callback = std::move(callback)](
                                           Base::Status const& err, Buffer read, bool complete) {
                      self->OnSizeRead(err, read, complete, callback);
                    }));
}

void NativeMessagingHostReadStream::OnSizeRead(Base::Status const& err, Buffer const& sizeBuffer,
                                               bool complete, Callback const& callback) {
  if (err) {
    TRACE_ERROR("Read size failed", this, err, sizeBuffer, complete);
    callback->Call(err, sizeBuffer, complete);
    return;
  }
  if (sizeBuffer.GetLength() == 0) {
    TRACE_VERBOSE("Read zero bytes", complete);
    PostOutcome(callback, {}, true);
    return;
  }
  std::uint32_t packetSize = 0;
  if (sizeBuffer.GetLength() != sizeof packetSize) {
    TRACE_ERROR("Invalid header size", sizeBuffer, _maxPacketSize);
    PostOutcome(callback, Base::Exception("Invalid Header Size"), complete);
    return;
  }
  std::memcpy(&packetSize, sizeBuffer.GetData(), sizeof packetSize);
  if (packetSize == 0) {
    TRACE_VERBOSE("Read zero length packet", complete);
    PostOutcome(callback, {}, true);
    return;
  }
  if (packetSize > _maxPacketSize) {
    TRACE_ERROR("Read packet size but exceeded max", packetSize, _maxPacketSize);
    PostOutcome(callback, Base::Exception("Max Packet Size Exceeded"), complete);
    return;
  }
  TRACE_VERBOSE("Reading data", packetSize);
  try {
    if (_onBegun) _onBegun->Call(packetSize);
    // Uninitialised, so a client that announces a packet and never sends it costs no memory.
    ReadData(Buffer::Uninitialized(packetSize), packetSize, callback);
  } catch (std::exception const& thrown) {
    // No caller is on the stack to catch it, and the caller still waits for its callback.
    callback->Call(Base::Exception(thrown.what()), {}, complete);
  }
}

void NativeMessagingHostReadStream::ReadData(Buffer const& allData, std::size_t remaining,
                                             Callback const& callback) {
  if (!_source) throw Base::Exception("Read Stream Closed");  // between two reads
  _source->ReadInto(allData.Slice(allData.GetLength() - remaining, remaining),
                    Base::MakeCallback([self = Base::Shared(this), allData, remaining, callback](
                                           Base::Status const& err, Buffer data, bool complete) {
                      self->OnDataRead(err, data, complete, allData, remaining, callback);
                    }));
}

void NativeMessagingHostReadStream::OnDataRead(Base::Status const& err, Buffer const& data,
                                               bool complete, Buffer const& allData,
                                               std::size_t remaining, Callback const& callback) {
  if (!err && data.GetLength() == 0 && complete) {
    // Reading on would find the same end again, without end.
    OnDataRead(Base::Exception("Unexpected End Of Stream"), data, complete, allData, remaining,
               callback);
    return;
  }
  if (err) {
    TRACE_ERROR("Read data failed", this, err, data, complete, allData, remaining);
    callback->Call(err, allData, complete);
    return;
  }
  if (data.GetLength() == remaining) {
    TRACE_VERBOSE("Read data completed", this, err, data, complete, allData, remaining);
    callback->Call(err, allData, complete);
    return;
  }
  TRACE_VERBOSE("Read data partially completed", this, err, data, complete, allData, remaining);
  try {
    ReadData(allData, remaining - data.GetLength(), callback);
  } catch (std::exception const& thrown) {
    callback->Call(Base::Exception(thrown.what()), allData, complete);
  }
}

void NativeMessagingHostReadStream::Close() {
  if (!_source) return;
  TRACE_VERBOSE("Native messaging host read stream closed", this);
  _source->Close();
  _source.Reset();
}

}  // namespace IO
