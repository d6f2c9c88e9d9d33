#pragma once

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Bench {

// A payload that is asked, and the exact payload that must answer it.
struct Exchange {
  std::string request;  // neither is empty: an empty packet ends the connection
  std::string answer;
};

struct ClientOptions {
  std::string socket;   // with a '/' a path, else an abstract name; a leading '@' is dropped
  bool stream = false;  // SOCK_STREAM instead of SOCK_SEQPACKET
  bool wait = false;    // for the server to listen, if it does not yet
  std::uint64_t connections = 1;
  std::uint64_t window = 1;         // requests that each connection keeps unanswered
  bool connectEach = false;         // a connection for each request; `window` is 1 then
  std::vector<Exchange> exchanges;  // not empty; each client asks them in turn
};

// How long a server may leave its clients without any news.
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
// Throws std::system_error, or std::invalid_argument when no socket can have such a name.
Descriptor Connect(ClientOptions const& options);

// Clients of one server, driven by one epoll loop on the calling thread. They check that every
// answer is the expected one, byte for byte, and in the order of the requests of its connection.
//
//   offset  size  field
//   0       4     n, the payload's length in bytes: unsigned, host byte order
//   4       n     payload
//
// On a SOCK_SEQPACKET socket the two fields are records of their own, on a SOCK_STREAM socket just
// bytes.
//
// All operations throw std::runtime_error on whatever the server does that it should not, and when
// it does nothing for `patienceMs`; the object is of no more use then.
class Clients {
 public:
  // Connects, unless every request is to have a connection of its own. `options` must outlive this.
  explicit Clients(ClientOptions const& options);
  ~Clients();

  // Asks `count` requests. Returns the latency of each, in the order of the answers: from just
  // before it is sent, which is after the connection is made, to the last byte of its answer.
  std::vector<std::chrono::nanoseconds> Run(std::uint64_t count);

  // Ends every connection from this side and waits for the server to do the same; an answer on top
  // of those asked for comes to light here. The last operation.
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
