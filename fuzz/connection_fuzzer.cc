#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <list>
#include <mutex>
#include <nlohmann/json.hpp>
#include <span>
#include <stdexcept>
#include <string>

#include "base/exception.h"
#include "base/loop/io_thread.h"
#include "base/loop/run_and_wait.h"
#include "daemon/activity.h"
#include "daemon/connection_table.h"
#include "daemon/dispatch.h"
#include "daemon/user_account.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

// The daemon's connections over real socket pairs, with clients that send, receive and close in any
// order. The input is a list of steps: a byte chooses the step and the client, arguments follow.
//
// A model of each client holds the responses that the daemon owes it. Each whole request has its
// response, in order, and the connection lasts, unless the client has done what ends a connection.
// Then later requests have none, and a response may be lost only if it had no room in the kernel.
// After each run nothing is left of the connections. A hang shows as libFuzzer's timeout.

namespace {

void Require(bool condition) {
  if (!condition) __builtin_trap();
}

std::mutex gate;  // while it is locked, sensors wait

template <typename Result>
nlohmann::json Ask(Result result) {
  std::lock_guard const lock(gate);
  return result();
}

std::string GetLarge() { return std::string(4096, 'x'); }

constexpr auto sensors = std::to_array<Sensor>({
    {"small", [] { return Ask([] { return "a"; }); }, "", ""},
    {"large", [] { return Ask(GetLarge); }, "", ""},
    {"error", [] { return Ask([]() -> int { throw Base::Exception("b"); }); }, "", ""},
    {"throw", [] { return Ask([]() -> int { throw std::runtime_error("c"); }); }, "", ""},
    {"bytes", [] { return Ask([] { return "\xff"; }); }, "", ""},
});

struct Exchange {
  std::string request;
  std::string response;  // empty: the request ends the connection
};

std::array<Exchange, 8> const exchanges{{
    {R"({"sensor":{"small":0}})", R"("a")"},
    {R"({"sensor":{"large":0}})", '"' + GetLarge() + '"'},
    {R"({"sensor":{"error":0}})", R"({"error_message":"b","status":"ErrorGeneric"})"},
    {"7", R"({"status":"ErrorNotImplemented"})"},
    {"", ""},  // the client's orderly end; the other three fail
    {R"({"sensor":{"throw":0}})", ""},
    {R"({"sensor":{"bytes":0}})", ""},
    {"{", ""},
}};
Exchange const garbage{"?", ""};

// What a client sends with one call, and the exchange whose request ends with it.
struct Piece {
  std::string bytes;
  Exchange const* exchange = nullptr;
};

struct Client {
  Base::UniqueFd fd;
  bool isPacketSocket = false;
  std::deque<Piece> outbox{};
  std::deque<Exchange const*> owed{};
  std::string inbox{};      // the begin of a response
  bool isInPacket = false;  // the daemon has only the begin of a request
  bool isOver = false;      // the daemon may close, and need not answer later requests
  bool mayLose = false;     // the daemon may close, and responses may be lost
  bool isWild = false;      // the daemon may have understood garbage as requests
};

class Run {
 public:
  explicit Run(std::span<std::uint8_t const> input) : _input(input) {}

  void Execute() {
    while (!_input.empty()) Step(Next());
    if (_hold) _hold.unlock();
    for (Client& client : _clients) {
      EndSending(client);
      while (Receive(client, 4096)) Wait(client);
    }
    _clients.clear();
    Drain();
    static std::size_t objects = 0;  // the first run creates what stays
    bool const isFirst = objects == 0;
    bool isOver = false;
    while (!isOver || (!isFirst && Base::Shareable::GetLiveObjectCount() > objects)) {
      Base::RunAndWait(*_io, [&isOver] {
        static auto const account = UserAccount::Get(geteuid());
        isOver = !IsAtWork() && account->GetConnections() == 0 && account->GetKeptLength() == 0;
      });
    }
    objects = Base::Shareable::GetLiveObjectCount();
    Require(_isDrained && (isFirst || CountDescriptors() == _descriptors));
  }

 private:
  std::uint8_t Next() {
    if (_input.empty()) return 0;
    std::uint8_t const byte = _input.front();
    _input = _input.subspan(1);
    return byte;
  }

  void Step(unsigned step) {
    // Few enough to stay below the limit of their user's memory.
    if (_connections < 3 && (_clients.empty() || step % 16 == 0)) Connect(Next() % 2 != 0);
    if (_clients.empty()) return;
    auto const position = std::next(_clients.begin(), step / 16 % std::ssize(_clients));
    Client& client = *position;
    unsigned const operation = step % 16;
    unsigned const argument = operation > 0 && operation < 7 ? Next() : 0;
    if (operation == 1) {
      for (unsigned i = 0; i <= argument / 8; ++i) Queue(client, argument % 8, 0);
      Send(client, client.outbox.size());
    }
    if (operation == 2) Queue(client, argument % 8, argument / 8);
    if (operation == 3) Send(client, argument);
    if (operation == 4) {
      client.outbox.push_back({std::string(argument % 8, '\0'), &garbage});
      for (char& byte : client.outbox.back().bytes) byte = static_cast<char>(Next());
    }
    if (operation == 5) Receive(client, argument * std::size_t{16} + 1);
    for (unsigned i = 0; operation == 6 && i < argument % 8; ++i) Base::RunAndWait(*_io, [] {});
    if ((operation == 7 || operation == 12) && _hold) _hold.unlock();
    while (operation == 7 && !client.owed.empty() && Receive(client, 4096)) {
      if (!client.owed.empty()) Wait(client);
    }
    if (operation == 8) EndSending(client);
    if (operation == 9) client.mayLose = shutdown(client.fd.Get(), SHUT_RD) == 0;
    if (operation == 10) _clients.erase(position);
    if (operation == 11 && !_hold) _hold.lock();
    if (operation == 13) Drain();
  }

  void Connect(bool isPacketSocket) {
    std::array<int, 2> ends{};
    int const type = isPacketSocket ? SOCK_SEQPACKET : SOCK_STREAM;
    Require(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()) == 0);
    _clients.push_back({.fd = Base::UniqueFd(ends[0]), .isPacketSocket = isPacketSocket});
    int const length = 1;  // the kernel takes its minimum, so that few responses fill the buffer
    Require(setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &length, sizeof length) == 0);
    auto const socket = Base::MakeShared<Net::SocketLinux>(Base::UniqueFd(ends[1]), _io);
    Base::RunAndWait(*_io, [&] { _table.OnNewConnection({}, {}, socket); });
    ++_connections;
  }

  // Cuts the packet after `cut` bytes, and after its header where that is a record of its own.
  static void Queue(Client& client, unsigned which, std::size_t cut) {
    Exchange const& exchange = exchanges.at(which);
    auto const length = static_cast<std::uint32_t>(exchange.request.size());
    std::string packet(sizeof length, '\0');
    std::memcpy(packet.data(), &length, sizeof length);
    packet += exchange.request;
    std::size_t start = 0;
    for (std::size_t const end : {sizeof length, cut}) {
      if (end <= start || end >= packet.size() || (!client.isPacketSocket && cut < 4)) continue;
      client.outbox.push_back({packet.substr(start, end - start)});
      start = end;
    }
    client.outbox.push_back({packet.substr(start), &exchange});
  }

  void Send(Client& client, std::size_t count) {
    for (; count > 0 && !client.outbox.empty(); --count) {
      auto const [bytes, exchange] = client.outbox.front();
      ssize_t const length =
          send(client.fd.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (length == -1 && errno == EAGAIN) return;
      if (length == -1) {
        Require(MayEnd(client));
        return EndSending(client);
      }
      Require(length == std::ssize(bytes));  // less than a page goes whole or not at all
      client.outbox.pop_front();
      client.isInPacket = exchange == nullptr;
      if (exchange == nullptr || client.isOver) continue;
      if (exchange->response.empty()) {
        client.isWild = exchange == &garbage;
        End(client, !exchange->request.empty());
      } else {
        client.owed.push_back(exchange);
        if (client.owed.size() > 250) client.mayLose = true;  // the limit, if all are large
      }
    }
  }

  static void End(Client& client, bool isFailure) {
    client.isOver = true;
    if (!isFailure || client.owed.empty()) return;
    // Room for one small response is certain.
    if (client.owed.size() > 1 || client.owed[0]->response.size() > 4096) client.mayLose = true;
  }

  void EndSending(Client& client) const {
    if (!client.isOver) End(client, client.isInPacket && !_isDraining);
    client.outbox.clear();
    shutdown(client.fd.Get(), SHUT_WR);
  }

  bool MayEnd(Client const& client) const { return client.isOver || client.mayLose || _isDraining; }

  // Receives what is there. Returns false at the end of the connection.
  bool Receive(Client& client, std::size_t length) const {
    std::array<char, 8192> buffer{};
    if (client.isPacketSocket) length = buffer.size();
    ssize_t const received = recv(client.fd.Get(), buffer.data(), length, MSG_DONTWAIT);
    if (received == -1) {
      // ECONNRESET: the daemon left something unread. What it has sent comes after the error.
      Require(errno == EAGAIN || (errno == ECONNRESET && MayEnd(client)));
      return true;
    }
    client.inbox.append(buffer.data(), static_cast<std::size_t>(received));
    std::uint32_t size = 0;
    while (client.inbox.copy(reinterpret_cast<char*>(&size), sizeof size) == sizeof size &&
           client.inbox.size() - sizeof size >= size) {
      std::string const response = client.inbox.substr(sizeof size, size);
      client.inbox.erase(0, sizeof size + size);
      if (client.owed.empty()) {
        Require(client.isWild && nlohmann::json::accept(response));
      } else {
        Require(response == client.owed.front()->response);
        client.owed.pop_front();
      }
    }
    if (received > 0) return true;
    Require(MayEnd(client) &&
            (client.mayLose || (client.owed.empty() && (client.isWild || client.inbox.empty()))));
    return false;
  }

  static void Wait(Client const& client) {
    pollfd state{.fd = client.fd.Get(), .events = POLLIN, .revents = 0};
    poll(&state, 1, -1);
  }

  void Drain() {
    if (std::exchange(_isDraining, true)) return;
    auto const onDrained = Base::MakeCallback([this] { _isDrained = true; });
    Base::RunAndWait(*_io, [&] { _table.Drain(onDrained); });
  }

  static std::ptrdiff_t CountDescriptors() {
    std::filesystem::directory_iterator const open("/proc/self/fd");
    return std::distance(begin(open), end(open));
  }

  std::span<std::uint8_t const> _input;
  Base::Shared<Base::ThreadLinux> const _io = Base::GetIOThread();
  ConnectionTable _table{_io};
  std::ptrdiff_t const _descriptors = CountDescriptors();
  std::unique_lock<std::mutex> _hold{gate, std::defer_lock};
  std::list<Client> _clients;
  int _connections = 0;
  bool _isDraining = false;
  bool _isDrained = false;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  char const* const arguments[] = {"fuzzer", "--trace-level=-1"};
  ParseArguments(2, arguments);
  Trace::InitializeTrace(true, "");  // libFuzzer reports crashes
  signal(SIGPIPE, SIG_IGN);
  UseSensors(sensors);
  std::uint8_t const request[] = {1, 0, 0};
  Run(request).Execute();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  Run(std::span(data, size)).Execute();
  return 0;
}
