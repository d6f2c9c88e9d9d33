#pragma once

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Bench {

// The payload of a request, and the exact payload of its response.
struct Exchange {
  std::string request;  // neither is empty: an empty packet ends the connection
  std::string answer;
};

struct ClientOptions {
  std::string socket;   // a path if it has a '/', else an abstract name; a leading '@' is dropped
  bool stream = false;  // SOCK_STREAM instead of SOCK_SEQPACKET
  bool wait = false;    // until the server listens
  std::uint64_t connections = 1;
  std::uint64_t window = 1;         // requests that each connection keeps in flight
  bool connectEach = false;         // a new connection for each request; requires `window` 1
  std::vector<Exchange> exchanges;  // not empty; each client sends them in turn
};

// The longest time without any byte from the server.
constexpr int patienceMs = 30'000;

// Owns a descriptor, or none.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : _fd(fd) {}
  Descriptor(Descriptor&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(_fd, other._fd);
    other.Close();
    return *this;
  }
  ~Descriptor() { Close(); }

  int Get() const { return _fd; }
  bool IsOpen() const { return _fd != -1; }
  void Close() {
    if (IsOpen()) {
      close(std::exchange(_fd, -1));
    }
  }

 private:
  int _fd = -1;
};

// Throws std::system_error with `errno` and the text `what`.
[[noreturn]] void ThrowErrno(std::string const& what);

// Returns a connected socket; waits while the server's backlog is full.
// Throws std::system_error, or std::invalid_argument when the name is not valid for a socket.
Descriptor Connect(ClientOptions const& options);

// Clients of one server, in one epoll loop on the calling thread. They check that every response is
// the expected one, byte for byte, in the order of the requests of its connection.
//
//   offset  size  field
//   0       4     n, the payload's length in bytes: unsigned, host byte order
//   4       n     payload
//
// On a SOCK_SEQPACKET socket the two fields are separate records; on a SOCK_STREAM socket they are
// just bytes.
//
// All operations throw std::runtime_error when the server breaks the protocol, or sends nothing for
// `patienceMs`. After that the object must not be used.
class Clients {
 public:
  // Connects, unless `connectEach` is set. `options` must outlive this object.
  explicit Clients(ClientOptions const& options);
  ~Clients();

  // Sends `count` requests. Returns the latencies, in the order of the responses: the time from
  // just before the request is sent to the last byte of its response. It never includes connecting.
  std::vector<std::chrono::nanoseconds> Run(std::uint64_t count);

  // Shuts down every connection and waits for the server to close it. Detects surplus responses.
  // Must be the last operation.
  void Finish();

 private:
  class Client;
  using Latencies = std::vector<std::chrono::nanoseconds>;

  void Open(Client& client);
  void Watch(Client const& client, int operation, std::uint32_t events);
  void AskOn(Client& client);  // keeps the client's window full
  void Receive(Client& client, Latencies& latencies);
  void FailUnanswered() const;

  ClientOptions const& _options;
  std::vector<Exchange> _packets;  // the exchanges, with their headers
  Descriptor _epoll;               // an event's data is the client's number
  std::vector<Client> _clients;
  std::vector<char> _scratch;
  std::uint64_t _unasked = 0;
};

}  // namespace Bench
