#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>

#include "base/buffer.h"
#include "base/loop/io_thread.h"
#include "base/loop/run_and_wait.h"
#include "base/shared.h"
#include "io/file_stream.h"
#include "io/native_messaging_host_read_stream.h"
#include "utilities/arguments/arguments.h"

// The packet reader and the JSON parser, over any bytes that a client can send and in reads of any
// size: no packet is longer than the limit, each `Read` calls back once, and each payload is
// parsed.

namespace {

constexpr std::uint32_t maxPacketSize = 4096;

// Returns the input in pieces; bytes of the input choose their lengths.
class InputStream final : public IO::FileReadStream {
 public:
  explicit InputStream(std::span<unsigned char const> input) : _input(input) {}

  void Read(Callback callback) override { ReadInto(Base::ByteBuffer::Zeroed(64), callback); }

  void ReadInto(Base::ByteBuffer buffer, Callback callback) override {
    std::size_t length = std::min(buffer.GetLength(), _input.size());
    if (length > 1 && _input[0] % 3 == 0) length = 1 + _input[0] % length;
    std::ranges::copy(_input.first(length), buffer.GetData());
    _input = _input.subspan(length);
    callback->Call({}, buffer.Slice(0, length), length == 0);
  }

  void Close() override {}

 private:
  std::span<unsigned char const> _input;
};

// Reads packets until the stream ends or fails, on the IO thread, to which the stream posts.
class Reader final : public Base::Shareable {
 public:
  explicit Reader(std::span<unsigned char const> input)
      : _stream(Base::MakeShared<IO::NativeMessagingHostReadStream>(
            Base::MakeShared<InputStream>(input), maxPacketSize)) {}

  void Next() {
    _stream->Read(Base::MakeCallback(
        [self = Base::Shared(this)](Base::Status const& status, Base::ByteBuffer packet,
                                    bool complete) { self->OnPacket(status, packet, complete); }));
  }

  bool HasEnded() const { return _hasEnded; }

 private:
  void OnPacket(Base::Status const& status, Base::ByteBuffer const& packet, bool complete) {
    if (_hasEnded) __builtin_trap();
    if (packet.GetLength() > maxPacketSize) __builtin_trap();
    if (status || complete) {
      _hasEnded = true;
      return;
    }
    auto const bytes = packet.GetSpan();
    auto const json = nlohmann::json::parse(bytes.begin(), bytes.end(), nullptr, false);
    static_cast<void>(json.contains("sensor"));
    Next();
  }

  Base::Shared<IO::NativeMessagingHostReadStream> _stream;
  bool _hasEnded = false;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  static_cast<void>(argc);
  static_cast<void>(argv);
  char const* const arguments[] = {"fuzzer", "--trace-level=1"};
  ParseArguments(2, arguments);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  auto const ioThread = Base::GetIOThread();
  auto const reader = Base::MakeShared<Reader>(std::span(data, size));
  Base::RunAndWait(*ioThread, [&reader] { reader->Next(); });
  // Each completion is a task of its own, so more than one round may pass.
  while (true) {
    bool hasEnded = false;
    Base::RunAndWait(*ioThread, [&] { hasEnded = reader->HasEnded(); });
    if (hasEnded) return 0;
  }
}
