#include "client/exchange.h"

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <utility>

#include "base/exception.h"
#include "base/loop/io_thread.h"
#include "io/file_stream.h"
#include "io/native_messaging_host_read_stream.h"
#include "io/native_messaging_host_write_stream.h"
#include "net/socket.h"

namespace {

constexpr std::size_t readSize = 2048;
constexpr std::uint32_t maxResponseSize = std::uint32_t{16} << 20U;
constexpr std::int64_t connectRetryMs = 10;

// To connect to a socket file takes the permission to write to it. Empty where no group has that.
std::string DescribeWhoMayConnect(Net::Address const& address) {
  std::string const path = address.GetUnixPath();
  struct stat file {};
  if (stat(path.c_str(), &file) == -1 || (file.st_mode & S_IWGRP) == 0) return {};
  group entry{};
  group* found = nullptr;
  std::array<char, 4096> texts;
  getgrgid_r(file.st_gid, &entry, texts.data(), texts.size(), &found);
  std::string const name = found != nullptr ? found->gr_name : std::to_string(file.st_gid);
  return "; it is for root and the members of the group " + name;
}

// Passes on a source of bytes and knows whether a byte has arrived: the outcome of a packet does
// not say that.
class ResponseStream final : public IO::FileReadStream {
 public:
  explicit ResponseStream(Base::Shared<IO::FileReadStream> source) : _source(std::move(source)) {}

  bool HasBegun() const { return _hasBegun; }

  void Read(Callback callback) override { _source->Read(Observe(std::move(callback))); }

  void ReadInto(Base::ByteBuffer buffer, Callback callback) override {
    _source->ReadInto(std::move(buffer), Observe(std::move(callback)));
  }

  void Close() override { _source->Close(); }

 private:
  Callback Observe(Callback callback) {
    return Base::MakeCallback(
        [self = Base::Shared(this), callback = std::move(callback)](
            Base::Status const& status, Base::ByteBuffer data, bool complete) {
          if (!status && data.GetLength() > 0) self->_hasBegun = true;
          callback->Call(status, std::move(data), complete);
        });
  }

  Base::Shared<IO::FileReadStream> const _source;
  bool _hasBegun = false;
};

// A status has no error code, only the text of one.
bool IsError(Base::Status const& status, int errorCode) {
  return Base::ErrnoText(errorCode) == status.Get().what();
}

}  // namespace

Exchange::Exchange(Net::Address address, std::string request)
    : _address(std::move(address)), _request(std::move(request)), _type(SOCK_SEQPACKET) {}

std::optional<Exchange::Outcome> Exchange::Run(std::chrono::milliseconds limit) {
  auto const deadline = Condition::Clock::now() + limit;
  Base::GetIOThread()->PostTask(
      Base::MakeCallback([self = Base::Shared(this)] { self->Connect(); }));
  std::unique_lock lock(_mutex);
  _hasOutcome.WaitUntil(lock, deadline, [this] { return _outcome.has_value(); });
  return std::move(_outcome);
}

template <typename Step>
void Exchange::Try(Step step) {
  try {
    step();
  } catch (std::exception const& err) {
    Fail(err.what());
  }
}

void Exchange::Connect() {
  Try([this] {
    _socket = Base::MakeShared<Net::SocketLinux>(AF_UNIX, _type, 0, Base::GetIOThread());
    _socket->Connect(_address,
                     Base::MakeCallback([self = Base::Shared(this)](Base::Status const& status) {
                       self->OnConnected(status);
                     }));
  });
}

void Exchange::OnConnected(Base::Status const& status) {
  if (!status) {
    Try([this] { SendRequest(); });
  } else if (_type == SOCK_SEQPACKET && IsError(status, EPROTOTYPE)) {
    _type = SOCK_STREAM;
    Connect();
  } else if (IsError(status, EAGAIN)) {
    // The listener's backlog is full. A non-blocking connect() cannot wait for room in it.
    Base::GetIOThread()->PostScheduledTask(
        connectRetryMs, Base::MakeCallback([self = Base::Shared(this)] { self->Connect(); }));
  } else {
    Fail((_isRepeat ? "Cannot connect again to " : "Cannot connect to ") + _address.ToText() +
         ": " + status.Get().what() +
         (IsError(status, EACCES) ? DescribeWhoMayConnect(_address) : ""));
  }
}

void Exchange::SendRequest() {
  auto const credentials = _socket->GetPeerCredentials();
  if (credentials.uid != 0 && credentials.uid != geteuid()) {
    Fail("Refusing to ask " + _address.ToText() + ": the server runs as user " +
         std::to_string(credentials.uid) + ", not as root or this user");
    return;
  }
  auto const stream = Base::MakeShared<IO::NativeMessagingHostWriteStream>(
      Base::MakeShared<Net::SocketWriteStream>(_socket));
  stream->Write(
      Base::CopyOfText(_request),
      Base::MakeCallback([self = Base::Shared(this)](Base::Status const& status, Base::ByteBuffer) {
        self->OnRequestSent(status);
      }));
}

void Exchange::OnRequestSent(Base::Status const& status) {
  if (status) {
    OnConnectionLost(status.Get().what());
    return;
  }
  try {
    auto const source = Base::MakeShared<ResponseStream>(
        Base::MakeShared<Net::SocketReadStream>(_socket, readSize));
    auto const stream =
        Base::MakeShared<IO::NativeMessagingHostReadStream>(source, maxResponseSize);
    stream->Read(Base::MakeCallback(
        [self = Base::Shared(this), source](Base::Status const& readStatus, Base::ByteBuffer packet,
                                            bool complete) {
          if (source->HasBegun()) {
            self->OnResponse(readStatus, packet, complete);
          } else {
            self->OnConnectionLost(readStatus ? readStatus.Get().what() : "End of stream");
          }
        }));
  } catch (std::exception const& err) {
    // The socket throws when it has found a hang-up between the end of the write and the read.
    OnConnectionLost(err.what());
  }
}

void Exchange::OnConnectionLost(std::string const& reason) {
  if (std::exchange(_isRepeat, true)) {
    Fail("The connection ended twice before a response (" + reason +
         "): this user may have too many connections or unread responses, or the daemon is "
         "stopping; see its log");
    return;
  }
  Try([this] {
    _socket->Close();
    Connect();
  });
}

void Exchange::OnResponse(Base::Status const& status, Base::ByteBuffer const& packet,
                          bool complete) {
  if (status) {
    Fail(std::string("Cannot read the response: ") + status.Get().what());
  } else if (complete && packet.GetLength() == 0) {
    Fail("The daemon's response is empty");
  } else if (!std::exchange(_ended, true)) {
    auto const bytes = packet.GetSpan();
    SetOutcome({.isResponse = true, .text = std::string(bytes.begin(), bytes.end())});
    _socket->Close();
  }
}

void Exchange::Fail(std::string const& reason) {
  if (std::exchange(_ended, true)) return;
  SetOutcome({.isResponse = false, .text = reason});
  if (_socket) _socket->Close();
}

void Exchange::SetOutcome(Outcome outcome) {
  std::scoped_lock const lock(_mutex);
  _outcome = std::move(outcome);
  _hasOutcome.NotifyAll();
}
