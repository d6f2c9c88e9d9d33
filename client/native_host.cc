#include "client/native_host.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <exception>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "base/buffer.h"
#include "base/exception.h"
#include "base/loop/io_thread.h"
#include "base/shared.h"
#include "base/stream.h"
#include "base/unique_fd.h"
#include "client/output.h"
#include "client/request.h"
#include "io/file_stream.h"
#include "io/file_stream_linux.h"
#include "io/native_messaging_host_read_stream.h"
#include "io/native_messaging_host_write_stream.h"

// The first thread runs the bridge step by step: read a packet, ask the daemon, write a packet. It
// starts each step on the IO thread and waits for it. Only one request is under way at a time: an
// extension knows only by the order to which request a response belongs.
//
// Each request has a connection of its own. A daemon that has exited because it was idle needs no
// care then: systemd starts the next one when the connection arrives.
//
// The end of the input is the end of the bridge, but the bridge notices it only between two
// requests. A browser that does not want to wait ends it by a signal.

namespace {

constexpr std::size_t readSize = 4096;
constexpr std::size_t maxResponseSize = std::size_t{1} << 20U;  // browsers disconnect above it

// A source that fills each buffer, unless it ends before. A pipe can deliver the four bytes of a
// length in two pieces, which a packet stream takes for a broken packet.
class FillingReadStream final : public IO::FileReadStream {
 public:
  explicit FillingReadStream(Base::Shared<IO::FileReadStream> source)
      : _source(std::move(source)) {}

  void Read(Callback callback) override { _source->Read(std::move(callback)); }

  void ReadInto(Base::ByteBuffer buffer, Callback callback) override { Fill(buffer, 0, callback); }

  void Close() override { _source->Close(); }

 private:
  void Fill(Base::ByteBuffer const& buffer, std::size_t length, Callback const& callback) {
    _source->ReadInto(
        buffer.Slice(length, buffer.GetLength() - length),
        Base::MakeCallback([self = Base::Shared(this), buffer, length, callback](
                               Base::Status const& status, Base::ByteBuffer data, bool complete) {
          self->OnRead(status, data, complete, buffer, length, callback);
        }));
  }

  void OnRead(Base::Status const& status, Base::ByteBuffer const& data, bool complete,
              Base::ByteBuffer const& buffer, std::size_t length, Callback const& callback) {
    std::size_t const newLength = status ? length : length + data.GetLength();
    if (status || complete || newLength == buffer.GetLength()) {
      callback->Call(status, buffer.Slice(0, newLength), complete);
      return;
    }
    try {
      Fill(buffer, newLength, callback);
    } catch (std::exception const& err) {
      // No caller is on the stack to catch it, and the caller still waits for its callback.
      callback->Call(Base::Exception(err.what()), buffer.Slice(0, newLength), complete);
    }
  }

  Base::Shared<IO::FileReadStream> const _source;
};

// Why the input is not what the bridge takes: the exit status is another one.
class InvalidInput final : public Base::Exception {
 public:
  using Base::Exception::Exception;
};

// A second descriptor of a standard stream. The stream on the IO thread closes its descriptor after
// an error; another file must not get the number of the standard stream then.
Base::UniqueFd CopyStandardStream(int fd) {
  return Base::UniqueFd(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

// How a read or a write has ended. A failure is a text and not an exception: two threads would
// share the exception.
struct Outcome {
  std::string failure;  // empty: success
  std::string payload;
};

using OutcomePromise = std::shared_ptr<std::promise<Outcome>>;

std::string GetFailure(Base::Status const& status) { return status ? status.Get().what() : ""; }

// Runs `start` on the IO thread, where it starts an operation that sets the promise at its end.
// Returns the outcome of the operation.
template <typename Start>
Outcome RunOperation(Start start) {
  auto const promise = std::make_shared<std::promise<Outcome>>();
  std::future<Outcome> outcome = promise->get_future();
  Base::GetIOThread()->PostTask(Base::MakeCallback([start = std::move(start), promise] {
    try {
      start(promise);
    } catch (std::exception const& err) {
      promise->set_value({.failure = err.what(), .payload = {}});
    }
  }));
  return outcome.get();
}

// Returns an empty text at the end of the input. A packet without a payload is such an end, too, as
// it is for the daemon. Throws InvalidInput.
std::string ReadRequest(Base::Shared<IO::NativeMessagingHostReadStream> const& input) {
  Outcome outcome = RunOperation([input](OutcomePromise const& promise) {
    input->Read(Base::MakeCallback(
        [promise](Base::Status const& status, Base::ByteBuffer packet, bool /*complete*/) {
          auto const bytes = packet.GetSpan();
          promise->set_value({GetFailure(status), std::string(bytes.begin(), bytes.end())});
        }));
  });
  if (outcome.failure == "Max Packet Size Exceeded") {
    throw InvalidInput("The request is longer than " + std::to_string(maxRequestSize) + " bytes");
  }
  if (!outcome.failure.empty()) {
    throw InvalidInput("Cannot read the request: " + outcome.failure);
  }
  if (!outcome.payload.empty() && !nlohmann::json::accept(outcome.payload)) {
    throw InvalidInput("The request is not valid JSON");
  }
  return std::move(outcome.payload);
}

// Returns false when the output has no reader any more.
bool WriteResponse(Base::Shared<IO::NativeMessagingHostWriteStream> const& output,
                   std::string const& response) {
  Outcome const outcome =
      RunOperation([output, data = Base::CopyOfText(response)](OutcomePromise const& promise) {
        output->Write(data, Base::MakeCallback([promise](Base::Status const& status,
                                                         Base::ByteBuffer /*data*/) {
                        promise->set_value({.failure = GetFailure(status), .payload = {}});
                      }));
      });
  if (outcome.failure == Base::ErrnoText(EPIPE)) return false;
  if (!outcome.failure.empty()) {
    throw Base::Exception("Cannot write the response: " + outcome.failure);
  }
  return true;
}

}  // namespace

int RunNativeHost(CommandLine const& commandLine) {
  try {
    if (isatty(STDIN_FILENO) == 1) {
      throw InvalidInput("Standard input is a terminal: a browser has to start this command");
    }
    Base::UniqueFd source = CopyStandardStream(STDIN_FILENO);
    Base::UniqueFd destination = CopyStandardStream(STDOUT_FILENO);
    // Before the first line of a trace: the trace opens standard output again.
    if (dup2(STDERR_FILENO, STDOUT_FILENO) == -1) throw Base::ExceptionPosix(errno);
    auto const input = Base::MakeShared<IO::NativeMessagingHostReadStream>(
        Base::MakeShared<FillingReadStream>(Base::MakeShared<IO::FileReadStreamLinux>(
            Base::MakeShared<IO::FileStreamLinux>(std::move(source), Base::GetIOThread()),
            readSize)),
        maxRequestSize);
    auto const output = Base::MakeShared<IO::NativeMessagingHostWriteStream>(
        Base::MakeShared<IO::FileWriteStreamLinux>(
            Base::MakeShared<IO::FileStreamLinux>(std::move(destination), Base::GetIOThread())));

    CommandLine exchange = commandLine;
    for (;;) {
      exchange.request = ReadRequest(input);
      if (exchange.request.empty()) break;
      std::string const response = SendRequest(exchange);
      if (response.size() > maxResponseSize) {
        throw Base::Exception("The response is longer than the " + std::to_string(maxResponseSize) +
                              " bytes that browsers accept");
      }
      if (!WriteResponse(output, response)) break;
    }
    return static_cast<int>(ExitStatus::Success);
  } catch (InvalidInput const& err) {
    return ExitWithError(ExitStatus::WrongUsage, err.what());
  } catch (std::exception const& err) {
    return ExitWithError(ExitStatus::NoResponse, err.what());
  }
}
