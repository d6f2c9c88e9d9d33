#include "bench/clients.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

namespace Bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t headerSize = sizeof(std::uint32_t);
constexpr std::size_t maxAnswerSize = 1024UL * 1024;

std::string MakePacket(std::string const& payload) {
  auto const size = static_cast<std::uint32_t>(payload.size());
  std::string packet(headerSize, '\0');
  std::memcpy(packet.data(), &size, headerSize);
  return packet + payload;
}

std::size_t GetPayloadSize(std::string const& packet) {
  std::uint32_t size = 0;
  std::memcpy(&size, packet.data(), headerSize);
  return size;
}

std::string DescribePacket(std::string const& packet) {
  return std::to_string(GetPayloadSize(packet)) + " bytes " + packet.substr(headerSize, 1024);
}

}  // namespace

void ThrowErrno(std::string const& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

Descriptor Connect(ClientOptions const& options) {
  bool const isPath = options.socket.find('/') != std::string::npos;
  std::string_view name = options.socket;
  if (!isPath && name.starts_with('@')) {
    name.remove_prefix(1);
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (name.empty() || name.size() >= sizeof address.sun_path) {
    throw std::invalid_argument("Not a valid socket name: \"" + options.socket + "\"");
  }
  name.copy(std::next(address.sun_path, isPath ? 0 : 1), name.size());
  // One byte more than the text: an abstract name has a leading NUL, a path a final NUL.
  auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 1);

  Descriptor connection(
      socket(AF_UNIX, (options.stream ? SOCK_STREAM : SOCK_SEQPACKET) | SOCK_CLOEXEC, 0));
  // The socket is blocking with a timeout: connect() waits while the server's backlog is full.
  timeval const timeout{patienceMs / 1000, 0};
  if (!connection.IsOpen() ||
      setsockopt(connection.Get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) == -1) {
    ThrowErrno("Failed to create a socket");
  }
  auto const deadline = Clock::now() + std::chrono::milliseconds(patienceMs);
  while (connect(connection.Get(), reinterpret_cast<sockaddr const*>(&address), length) == -1) {
    bool const isAbsent = errno == ENOENT || errno == ECONNREFUSED;
    if (!isAbsent || !options.wait || Clock::now() > deadline) {
      ThrowErrno("Failed to connect to " + options.socket);
    }
    // No event reports that a server has begun to listen.
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return connection;
}

// One client. It uses one connection for all requests, or with `connectEach` a new one for each.
class Clients::Client {
 public:
  enum class Arrival { Nothing, Data, End };

  Client(ClientOptions const& options, std::vector<Exchange> const& packets, std::size_t number)
      : _options(options), _packets(packets), _number(number), _askedAt(options.window) {}

  void Open() { _connection = Connect(_options); }
  void Close() { _connection.Close(); }
  bool IsOpen() const { return _connection.IsOpen(); }
  int GetFd() const { return _connection.Get(); }
  std::size_t GetNumber() const { return _number; }
  // Whether a request has been sent in part only.
  bool IsAsking() const { return _isAsking; }
  std::uint64_t GetInFlight() const { return _asked - _answered; }

  // Sends the next request, or the remainder of a request that was sent in part only.
  // Returns false when the socket is full.
  bool Ask() {
    if (!_isAsking) {
      _isAsking = true;
      _askedAt[_asked % _askedAt.size()] = Clock::now();
      ++_asked;
    }
    std::string const& request = GetExchange(_asked - 1).request;
    while (_sent < request.size()) {
      std::size_t const size = _options.stream ? SendBytes(request) : SendRecords(request);
      if (size == 0) {
        return false;
      }
      _sent += size;
    }
    _sent = 0;
    _isAsking = false;
    return true;
  }

  // Receives once, and adds the latency of each response that is now complete.
  Arrival Receive(std::span<char> scratch, Latencies& latencies) {
    // On records, MSG_TRUNC makes recv() return a record's whole length, even beyond the buffer.
    int const flags = MSG_DONTWAIT | (_options.stream ? 0 : MSG_TRUNC);
    ssize_t const received = recv(GetFd(), scratch.data(), scratch.size(), flags);
    if (received == -1) {
      if (errno != EAGAIN && errno != EINTR) {
        ThrowErrno(Describe("failed to receive"));
      }
      return Arrival::Nothing;
    }
    if (received == 0) {
      return Arrival::End;
    }
    auto const size = static_cast<std::size_t>(received);
    if (!_options.stream) {
      CheckRecord(size);
    }
    _arrived.append(scratch.data(), std::min(size, scratch.size()));
    while (_arrived.size() >= headerSize) {
      std::size_t const payloadSize = GetPayloadSize(_arrived);
      if (payloadSize > maxAnswerSize) {
        Fail("the length of a response is " + std::to_string(payloadSize) + " bytes");
      }
      if (_arrived.size() < headerSize + payloadSize) {
        break;
      }
      CheckAnswer(headerSize + payloadSize);
      latencies.push_back(Clock::now() - _askedAt[_answered % _askedAt.size()]);
      ++_answered;
      _arrived.erase(0, headerSize + payloadSize);
    }
    return Arrival::Data;
  }

  [[noreturn]] void Fail(std::string const& what) const {
    throw std::runtime_error(Describe(what));
  }

 private:
  Exchange const& GetExchange(std::uint64_t index) const {
    return _packets[index % _packets.size()];
  }

  std::string Describe(std::string const& what) const {
    return "Client " + std::to_string(_number) + ", " + std::to_string(_answered) + " of " +
           std::to_string(_asked) + " requests answered: " + what;
  }

  // Both return the number of bytes sent, 0 when the socket is full.
  std::size_t SendBytes(std::string const& request) const {
    ssize_t const size =
        send(GetFd(), &request[_sent], request.size() - _sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    return size == -1 ? CheckSocketIsFull() : static_cast<std::size_t>(size);
  }

  // One call for both records, so that the server does not wake up for a header without payload.
  std::size_t SendRecords(std::string const& request) const {
    // sendmmsg() only reads this memory.
    char* const bytes = const_cast<char*>(request.data());
    std::array<iovec, 2> parts{
        {{bytes, headerSize}, {bytes + headerSize, request.size() - headerSize}}};
    std::array<mmsghdr, 2> records{};
    records[0].msg_hdr.msg_iov = &parts[0];
    records[0].msg_hdr.msg_iovlen = 1;
    records[1].msg_hdr.msg_iov = &parts[1];
    records[1].msg_hdr.msg_iovlen = 1;
    unsigned const first = _sent == 0 ? 0 : 1;
    int const count = sendmmsg(GetFd(), &records[first], 2 - first, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count == -1) {
      return CheckSocketIsFull();
    }
    return first + static_cast<unsigned>(count) == 2 ? request.size() - _sent : headerSize;
  }

  std::size_t CheckSocketIsFull() const {
    if (errno != EAGAIN && errno != EINTR) {
      ThrowErrno(Describe("failed to send"));
    }
    return 0;
  }

  void CheckRecord(std::size_t size) const {
    std::size_t const expected = _arrived.empty() ? headerSize : GetPayloadSize(_arrived);
    if (size != expected) {
      Fail("a record of " + std::to_string(size) + " bytes arrived, expected " +
           std::to_string(expected));
    }
  }

  void CheckAnswer(std::size_t size) const {
    if (GetInFlight() == (_isAsking ? 1 : 0)) {
      Fail("no request for " + DescribePacket(_arrived.substr(0, size)));
    }
    std::string const& expected = GetExchange(_answered).answer;
    if (_arrived.compare(0, size, expected) != 0) {
      Fail("expected " + DescribePacket(expected) + " but got " +
           DescribePacket(_arrived.substr(0, size)));
    }
  }

  ClientOptions const& _options;
  std::vector<Exchange> const& _packets;
  std::size_t _number;
  Descriptor _connection;
  std::uint64_t _asked = 0;  // includes a request that is sent in part
  std::uint64_t _answered = 0;
  std::vector<Clock::time_point> _askedAt;  // by the request's number, modulo the window
  bool _isAsking = false;
  std::size_t _sent = 0;  // bytes of the current request
  std::string _arrived;   // the bytes of an incomplete response
};

Clients::Clients(ClientOptions const& options)
    : _options(options), _epoll(epoll_create1(EPOLL_CLOEXEC)), _scratch(maxAnswerSize) {
  if (!_epoll.IsOpen()) {
    ThrowErrno("Failed to create an epoll descriptor");
  }
  for (Exchange const& exchange : options.exchanges) {
    _packets.push_back({MakePacket(exchange.request), MakePacket(exchange.answer)});
  }
  for (std::size_t i = 0; i < options.connections; ++i) {
    _clients.emplace_back(options, _packets, i);
    if (!options.connectEach) {
      Open(_clients.back());
    }
  }
}

Clients::~Clients() = default;

Clients::Latencies Clients::Run(std::uint64_t count) {
  Latencies latencies;
  latencies.reserve(count);
  _unasked = count;
  for (Client& client : _clients) {
    AskOn(client);
  }
  while (latencies.size() < count) {
    std::array<epoll_event, 64> events{};
    int const ready = epoll_wait(_epoll.Get(), events.data(), events.size(), patienceMs);
    if (ready == -1 && errno != EINTR) {
      ThrowErrno("Failed to wait for answers");
    }
    if (ready == 0) {
      FailUnanswered();
    }
    for (int i = 0; i < ready; ++i) {
      epoll_event const& event = events[static_cast<std::size_t>(i)];
      Client& client = _clients[event.data.u64];
      if (event.events != EPOLLOUT) {
        Receive(client, latencies);
      }
      AskOn(client);
    }
  }
  return latencies;
}

void Clients::Finish() {
  for (Client const& client : _clients) {
    if (client.IsOpen()) {
      shutdown(client.GetFd(), SHUT_WR);
    }
  }
  Latencies none;
  for (Client& client : _clients) {
    while (client.IsOpen()) {
      pollfd event{client.GetFd(), POLLIN, 0};
      if (poll(&event, 1, patienceMs) == 0) {
        client.Fail("the server does not end the connection");
      }
      if (client.Receive(_scratch, none) == Client::Arrival::End) {
        client.Close();
      }
    }
  }
}

void Clients::Open(Client& client) {
  client.Open();
  Watch(client, EPOLL_CTL_ADD, EPOLLIN);
}

void Clients::Watch(Client const& client, int operation, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = client.GetNumber();
  if (epoll_ctl(_epoll.Get(), operation, client.GetFd(), &event) == -1) {
    ThrowErrno("Failed to watch a connection");
  }
}

void Clients::AskOn(Client& client) {
  bool const wasAsking = client.IsAsking();
  while (client.IsAsking() || (_unasked > 0 && client.GetInFlight() < _options.window)) {
    if (!client.IsOpen()) {
      Open(client);
    }
    if (!client.IsAsking()) {
      --_unasked;
    }
    if (!client.Ask()) {
      Watch(client, EPOLL_CTL_MOD, EPOLLIN | EPOLLOUT);
      return;
    }
  }
  if (wasAsking) {
    Watch(client, EPOLL_CTL_MOD, EPOLLIN);
  }
}

void Clients::Receive(Client& client, Latencies& latencies) {
  Client::Arrival arrival{};
  do {
    arrival = client.Receive(_scratch, latencies);
    if (arrival == Client::Arrival::End) {
      client.Fail("the server has ended the connection");
    }
  } while (arrival == Client::Arrival::Data && client.GetInFlight() > 0);
  if (_options.connectEach && client.GetInFlight() == 0) {
    client.Close();
  }
}

void Clients::FailUnanswered() const {
  for (Client const& client : _clients) {
    if (client.GetInFlight() > 0) {
      client.Fail("nothing has arrived for " + std::to_string(patienceMs / 1000) + " s");
    }
  }
}

}  // namespace Bench
