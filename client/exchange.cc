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

// A status has no error code, only the text of one.
bool IsError(Base::Status const& status, int errorCode) {
  return Base::ErrnoText(errorCode) == status.Get().what();
}

}  // namespace

Exchange::Exchange(Net::Address address, std::string request)
    : _address(std::move(address)), _request(std::move(request)) {}

std::future<Exchange::Outcome> Exchange::Start() {
  Base::GetIOThread()->PostTask(
      Base::MakeCallback([self = Base::Shared(this)] { self->Connect(SOCK_SEQPACKET); }));
  return _outcome.get_future();
}

template <typename Step>
void Exchange::Try(Step step) {
  try {
    step();
  } catch (std::exception const& err) {
    Fail(err.what());
  }
}

void Exchange::Connect(int type) {
  Try([this, type] {
    _socket = Base::MakeShared<Net::SocketLinux>(AF_UNIX, type, 0, Base::GetIOThread());
    _socket->Connect(
        _address, Base::MakeCallback([self = Base::Shared(this), type](Base::Status const& status) {
          self->OnConnected(type, status);
        }));
  });
}

void Exchange::OnConnected(int type, Base::Status const& status) {
  if (!status) {
    Try([this] { SendRequest(); });
  } else if (type == SOCK_SEQPACKET && IsError(status, EPROTOTYPE)) {
    Connect(SOCK_STREAM);
  } else if (IsError(status, EAGAIN)) {
    // The listener's backlog is full. A non-blocking connect() cannot wait for room in it.
    Base::GetIOThread()->PostScheduledTask(
        connectRetryMs,
        Base::MakeCallback([self = Base::Shared(this), type] { self->Connect(type); }));
  } else {
    Fail("Cannot connect to " + _address.ToText() + ": " + status.Get().what() +
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
    Fail(std::string("Cannot send the request: ") + status.Get().what());
    return;
  }
  Try([this] {
    auto const stream = Base::MakeShared<IO::NativeMessagingHostReadStream>(
        Base::MakeShared<Net::SocketReadStream>(_socket, readSize), maxResponseSize);
    stream->Read(
        Base::MakeCallback([self = Base::Shared(this)](Base::Status const& readStatus,
                                                       Base::ByteBuffer packet, bool complete) {
          self->OnResponse(readStatus, packet, complete);
        }));
  });
}

void Exchange::OnResponse(Base::Status const& status, Base::ByteBuffer const& packet,
                          bool complete) {
  if (status) {
    Fail(std::string("Cannot read the response: ") + status.Get().what());
  } else if (complete && packet.GetLength() == 0) {
    Fail("The daemon closed the connection without a response");
  } else if (!std::exchange(_ended, true)) {
    auto const bytes = packet.GetSpan();
    _outcome.set_value({.isResponse = true, .text = std::string(bytes.begin(), bytes.end())});
    _socket->Close();
  }
}

void Exchange::Fail(std::string const& reason) {
  if (std::exchange(_ended, true)) return;
  _outcome.set_value({.isResponse = false, .text = reason});
  if (_socket) _socket->Close();
}
