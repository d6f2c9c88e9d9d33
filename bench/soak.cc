// Sends hostile packets to a server over several connections, while honest clients ask and expect
// the exact response in time. Then checks that the server's memory and descriptors are back where
// they were.
//
// Each hostile client has a thread and one connection. It sends a packet of a random kind and waits
// for what the protocol promises for it: a response, or the end of the connection. So a packet that
// the server handles in another way fails the run, and the server has at most one packet of each
// client to work on.
//
// The first tenth of the packets is a warm-up. The memory that an allocator keeps for good is in
// use after it, so growth from there to the end is a leak.

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <future>
#include <iterator>
#include <limits>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "bench/clients.h"
#include "bench/server.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr char const* usage =
    "Usage: soak --socket=PATH|@NAME --pid=SERVER --serial=TEXT [--packets=N] [--connections=N]\n"
    "            [--seed=N] [--max-json=BYTES] [--max-latency-ms=N] [--max-growth-kib=N]\n";

constexpr std::size_t maxPayload = 131072;  // of a request; the server refuses a longer one

constexpr char const* unknownSensor = R"({"sensor":{"none":null}})";
constexpr char const* notImplemented = R"({"status":"ErrorNotImplemented"})";
constexpr char const* hardware = R"({"sensor":{"hardware":null}})";

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  Bench::ClientOptions clients;
  std::string serial;  // the server's serial number
  std::uint64_t packets = 300'000;
  std::uint64_t seed = 1;
  std::size_t maxJson = 8192;  // the longest payload that the server parses to its end
  std::uint64_t maxLatencyMs = 100;
  std::uint64_t maxGrowthKib = 8192;
  pid_t pid = 0;
};

std::uint64_t ParseNumber(std::string_view name, std::string_view text) {
  std::uint64_t number = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number == 0 ||
      number > std::numeric_limits<std::int32_t>::max()) {
    throw UsageError(std::string(name) + " takes a number from 1");
  }
  return number;
}

Options ParseOptions(std::span<char* const> arguments) {
  Options options;
  options.clients.connections = 8;
  options.clients.wait = true;
  for (std::string_view const argument : arguments) {
    std::size_t const split = std::min(argument.find('='), argument.size());
    std::string_view const name = argument.substr(0, split);
    std::string_view const value = argument.substr(std::min(split + 1, argument.size()));
    if (name == "--socket") {
      options.clients.socket = value;
    } else if (name == "--serial") {
      options.serial = value;
    } else if (name == "--pid") {
      options.pid = static_cast<pid_t>(ParseNumber(name, value));
    } else if (name == "--packets") {
      options.packets = ParseNumber(name, value);
    } else if (name == "--connections") {
      options.clients.connections = ParseNumber(name, value);
    } else if (name == "--seed") {
      options.seed = ParseNumber(name, value);
    } else if (name == "--max-json") {
      options.maxJson = std::min<std::size_t>(ParseNumber(name, value), maxPayload);
    } else if (name == "--max-latency-ms") {
      options.maxLatencyMs = ParseNumber(name, value);
    } else if (name == "--max-growth-kib") {
      options.maxGrowthKib = ParseNumber(name, value);
    } else {
      throw UsageError("Invalid argument " + std::string(argument));
    }
  }
  if (options.clients.socket.empty() || options.serial.empty() || options.pid == 0) {
    throw UsageError("--socket, --pid or --serial is missing");
  }
  return options;
}

std::string MakeHeader(std::size_t size) {
  auto const number = static_cast<std::uint32_t>(size);
  std::string header(sizeof number, '\0');
  std::memcpy(header.data(), &number, sizeof number);
  return header;
}

std::string Repeat(std::string_view text, std::size_t count) {
  std::string repeated;
  repeated.reserve(text.size() * count);
  for (std::size_t i = 0; i < count; ++i) {
    repeated += text;
  }
  return repeated;
}

class HostileClient {
 public:
  struct Kind {
    char const* name;
    void (HostileClient::*send)();
  };
  static std::span<Kind const> GetKinds();

  HostileClient(Options const& options, std::uint64_t seed) : _options(options), _random(seed) {}

  // Sends one packet of a random kind, and waits for the response or the end of the connection if
  // the kind has one. Returns the number of the kind. Throws std::runtime_error when the server
  // does anything else.
  std::size_t SendPacket() {
    if (!_connection.IsOpen()) {
      Connect();
    }
    std::size_t const kind = Choose(0, GetKinds().size() - 1);
    try {
      (this->*GetKinds()[kind].send)();
    } catch (std::exception const& err) {
      throw std::runtime_error("Hostile packet \"" + std::string(GetKinds()[kind].name) +
                               "\": " + err.what());
    }
    return kind;
  }

 private:
  void Connect() {
    _connection = Bench::Connect(_options.clients);
    timeval const timeout{Bench::patienceMs / 1000, 0};
    if (setsockopt(_connection.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == -1) {
      Bench::ThrowErrno("failed to set a timeout");
    }
  }

  std::size_t Choose(std::size_t least, std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(least, most)(_random);
  }

  // A length from 1: as many below 100 as from 100 to 10000.
  std::size_t ChooseLength(std::size_t most) {
    double const exponent = std::uniform_real_distribution<>(0, 1)(_random);
    return static_cast<std::size_t>(std::pow(static_cast<double>(most), exponent));
  }

  void SendRecord(std::string_view record) {
    ssize_t const size = send(_connection.Get(), record.data(), record.size(), MSG_NOSIGNAL);
    if (size == -1) {
      Bench::ThrowErrno("failed to send");
    }
    if (static_cast<std::size_t>(size) != record.size()) {
      throw std::runtime_error("sent a record in part only");
    }
  }

  void SendPayload(std::string_view payload) {
    SendRecord(MakeHeader(payload.size()));
    SendRecord(payload);
  }

  // Returns the next record, empty at the end of the connection.
  std::string ReceiveRecord() {
    std::array<char, 4096> record{};
    ssize_t const size = recv(_connection.Get(), record.data(), record.size(), MSG_TRUNC);
    if (size == -1 && errno != ECONNRESET) {
      Bench::ThrowErrno("failed to receive");
    }
    if (size > static_cast<ssize_t>(record.size())) {
      throw std::runtime_error("received " + std::to_string(size) + " bytes");
    }
    return {record.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }

  void ExpectRecord(std::string const& expected) {
    std::string const record = ReceiveRecord();
    if (record != expected) {
      throw std::runtime_error("expected " + expected + " but received \"" + record + "\"");
    }
  }

  void ExpectNotImplemented() {
    ExpectRecord(MakeHeader(std::string_view(notImplemented).size()));
    ExpectRecord(notImplemented);
  }

  void ExpectEnd() {
    ExpectRecord("");
    HangUp();
  }

  void HangUp() { _connection.Close(); }

  void SendBytes() {
    std::string payload(ChooseLength(maxPayload), '\1');  // no JSON begins with this byte
    std::generate(std::next(payload.begin()), payload.end(),
                  [this] { return static_cast<char>(_random()); });
    SendPayload(payload);
    ExpectEnd();
  }

  void SendBeginOfJson() {
    SendPayload(
        std::string_view(hardware).substr(0, Choose(1, std::string_view(hardware).size() - 1)));
    ExpectEnd();
  }

  void SendInvalidUtf8() {
    SendPayload("{\"sensor\":{\"" + std::string(ChooseLength(1000), '\xff') + "\":null}}");
    ExpectEnd();
  }

  void SendDeepJson() {
    std::size_t const depth = ChooseLength(_options.maxJson / 2);
    SendPayload(std::string(depth, '[') + std::string(depth, ']'));
    ExpectNotImplemented();
  }

  void SendDeepUnclosedJson() {
    SendPayload(Repeat(R"({"a":)", ChooseLength(_options.maxJson / 5)));
    ExpectEnd();
  }

  void SendManyNames() {
    std::string payload = R"({"sensor":{"none":0)";
    std::size_t const size = ChooseLength(_options.maxJson);
    for (std::size_t i = 0; payload.size() + 16 < size; ++i) {
      payload += ",\"" + std::to_string(i) + "\":[]";
    }
    SendPayload(payload + "}}");
    ExpectNotImplemented();
  }

  void SendOtherJson() {
    static constexpr auto texts = std::to_array<std::string_view>(
        {"7", "null", "[]", "{}", R"("sensor")", R"({"sensor":7})", R"({"sensor":"hardware"})",
         R"({"sensor":["hardware"]})", R"({"sensor":{}})", R"({"sensor":{"":{}}})", "-1e-999",
         R"({"hardware":{"sensor":null}})", R"({"sensor":{"none":0},"sensor":{"none":1}})"});
    SendPayload(texts[Choose(0, texts.size() - 1)]);
    ExpectNotImplemented();
  }

  void SendShortHeader() {
    SendRecord(std::string(Choose(1, 3), '\1'));
    ExpectEnd();
  }

  void SendTooLongLength() {
    SendRecord(MakeHeader(Choose(maxPayload + 1, std::numeric_limits<std::uint32_t>::max())));
    ExpectEnd();
  }

  void SendLengthZero() {
    SendRecord(MakeHeader(0));
    ExpectEnd();
  }

  void SendEmptyRecord() {
    SendRecord("");
    ExpectEnd();
  }

  void SendHeaderAndHalfClose() {
    SendRecord(MakeHeader(ChooseLength(maxPayload)));
    shutdown(_connection.Get(), SHUT_WR);
    ExpectEnd();
  }

  void SendRequestAndHalfClose() {
    SendPayload(unknownSensor);
    shutdown(_connection.Get(), SHUT_WR);
    ExpectNotImplemented();
    ExpectEnd();
  }

  // The server loses the payload and waits for another one.
  void SendOneRecord() {
    std::string_view const payload = "[]";
    SendRecord(MakeHeader(payload.size()) + std::string(payload));
    if (Choose(0, 1) == 0) {
      HangUp();
      return;
    }
    SendRecord(payload);
    ExpectNotImplemented();
  }

  void SendLongRecord() {
    SendRecord(MakeHeader(2));
    SendRecord("[]" + std::string(ChooseLength(maxPayload), '{'));
    ExpectNotImplemented();
  }

  void SendBytewise() {
    std::string_view const payload = unknownSensor;
    SendRecord(MakeHeader(payload.size()));
    for (char const byte : payload) {
      SendRecord({&byte, 1});
    }
    ExpectNotImplemented();
  }

  void SendPartAndHangUp() {
    std::size_t const size = ChooseLength(maxPayload);
    SendRecord(MakeHeader(size));
    if (size > 1) {
      SendRecord(std::string(Choose(1, size - 1), '['));
    }
    HangUp();
  }

  void AskAndHangUp() {
    // Few enough for the kernel's buffer: the server reads no more once the client has gone.
    for (std::size_t count = Choose(1, 20); count > 0; --count) {
      SendPayload(unknownSensor);
    }
    HangUp();
  }

  void AskForCommandAndHangUp() {
    SendPayload(hardware);
    HangUp();
  }

  Options const& _options;
  std::mt19937_64 _random;
  Bench::Descriptor _connection;
};

std::span<HostileClient::Kind const> HostileClient::GetKinds() {
  static constexpr auto kinds = std::to_array<Kind>({
      {"random bytes", &HostileClient::SendBytes},
      {"begin of JSON", &HostileClient::SendBeginOfJson},
      {"invalid UTF-8", &HostileClient::SendInvalidUtf8},
      {"deep JSON", &HostileClient::SendDeepJson},
      {"deep, unclosed JSON", &HostileClient::SendDeepUnclosedJson},
      {"many names", &HostileClient::SendManyNames},
      {"JSON that is no request", &HostileClient::SendOtherJson},
      {"short header", &HostileClient::SendShortHeader},
      {"too long a length", &HostileClient::SendTooLongLength},
      {"length zero", &HostileClient::SendLengthZero},
      {"empty record", &HostileClient::SendEmptyRecord},
      {"header, half-close", &HostileClient::SendHeaderAndHalfClose},
      {"request, half-close", &HostileClient::SendRequestAndHalfClose},
      {"header and payload in one", &HostileClient::SendOneRecord},
      {"record beyond the length", &HostileClient::SendLongRecord},
      {"bytewise payload", &HostileClient::SendBytewise},
      {"part of a payload, gone", &HostileClient::SendPartAndHangUp},
      {"unread responses, gone", &HostileClient::AskAndHangUp},
      {"command, gone", &HostileClient::AskForCommandAndHangUp},
  });
  return kinds;
}

// All hostile clients of one run.
class HostileClients {
 public:
  HostileClients(Options const& options, std::uint64_t packets, std::uint64_t seed)
      : _packets(packets), _counts(HostileClient::GetKinds().size()) {
    for (std::uint64_t i = 0; i < options.clients.connections; ++i) {
      _threads.push_back(std::async(std::launch::async, [this, &options, seed, i] {
        try {
          Run(options, seed * options.clients.connections + i);
        } catch (...) {
          Stop();
          throw;
        }
        if (++_ended == options.clients.connections) {
          _isOver = true;
        }
      }));
    }
  }

  // Whether all packets have been sent, or the run has been stopped.
  bool IsOver() const { return _isOver; }

  // Each client ends after its current packet.
  void Stop() { _isOver = true; }

  // Throws the first failure of a client.
  void Join() {
    for (std::future<void>& thread : _threads) {
      thread.get();
    }
  }

  std::uint64_t GetCount(std::size_t kind) const { return _counts[kind]; }

 private:
  void Run(Options const& options, std::uint64_t seed) {
    HostileClient client(options, seed);
    while (!_isOver && _begun++ < _packets) {
      ++_counts[client.SendPacket()];
    }
  }

  std::uint64_t const _packets;
  std::atomic<std::uint64_t> _begun{0};
  std::atomic<std::uint64_t> _ended{0};
  std::atomic<bool> _isOver{false};
  std::vector<std::atomic<std::uint64_t>> _counts;
  std::vector<std::future<void>> _threads;  // last: they use the other members
};

// Asks on one connection at the given interval until the hostile clients have ended, at least once.
// Adds the latencies to `latencies`. Throws when a response is not the expected one.
void AskHonestly(Bench::ClientOptions options, Bench::Exchange exchange, milliseconds interval,
                 HostileClients& hostile, std::vector<nanoseconds>& latencies) {
  options.connections = 1;
  options.exchanges = {std::move(exchange)};
  try {
    Bench::Clients client(options);
    Clock::time_point next = Clock::now();
    do {
      std::this_thread::sleep_until(next);
      latencies.push_back(client.Run(1).front());
      next = std::max(next + interval, Clock::now());
    } while (!hostile.IsOver());
    client.Finish();
  } catch (...) {
    hostile.Stop();
    throw;
  }
}

struct Latencies {
  std::vector<nanoseconds> errors;    // of requests that need no sensor
  std::vector<nanoseconds> commands;  // of requests that run a command
};

// Sends hostile packets and asks meanwhile; adds the latencies of the responses to `latencies`.
void RunPackets(Options const& options, HostileClients& hostile, Latencies& latencies) {
  std::string const serial = R"({"sensor":{"hardware":{"bios_serial_number":")" + options.serial +
                             R"("}},"status":"Success"})";
  auto commands = std::async(std::launch::async, [&] {
    AskHonestly(options.clients, {hardware, serial}, milliseconds(100), hostile,
                latencies.commands);
  });
  auto errors = std::async(std::launch::async, [&] {
    AskHonestly(options.clients, {unknownSensor, notImplemented}, milliseconds(10), hostile,
                latencies.errors);
  });
  hostile.Join();
  errors.get();
  commands.get();
}

void Print(std::string const& name, std::uint64_t value) {
  std::printf("%-28s %" PRIu64 "\n", name.c_str(), value);
}

void PrintLatencies(std::string const& name, std::vector<nanoseconds> sorted) {
  std::sort(sorted.begin(), sorted.end());
  auto const toUs = [](nanoseconds time) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(time).count());
  };
  Print(name, sorted.size());
  Print(name + "_p50_us", toUs(sorted[sorted.size() / 2]));
  Print(name + "_p99_us", toUs(sorted[sorted.size() * 99 / 100]));
  Print(name + "_max_us", toUs(sorted.back()));
}

// Throws std::runtime_error when a figure is above its limit.
void Check(std::string const& name, std::uint64_t value, std::uint64_t limit) {
  if (value > limit) {
    throw std::runtime_error(name + " is " + std::to_string(value) + ", above the limit of " +
                             std::to_string(limit));
  }
}

void Run(Options const& options) {
  Bench::Server const server(options.pid);
  std::uint64_t const warmup = options.packets / 10;
  Latencies latencies;
  Clock::duration elapsed{};
  auto const run = [&](HostileClients& hostile) {
    Clock::time_point const start = Clock::now();
    RunPackets(options, hostile, latencies);
    elapsed += Clock::now() - start;
  };
  HostileClients first(options, warmup, options.seed);
  run(first);
  // Waits as long as it can: the number without clients is not known yet.
  Bench::Figures const before = server.ReadSettled(0);
  HostileClients second(options, options.packets - warmup, options.seed + 1);
  run(second);
  Bench::Figures const after = server.ReadSettled(before.descriptors);

  for (std::size_t kind = 0; kind < HostileClient::GetKinds().size(); ++kind) {
    Print(HostileClient::GetKinds()[kind].name, first.GetCount(kind) + second.GetCount(kind));
  }
  Print("milliseconds",
        static_cast<std::uint64_t>(std::chrono::duration_cast<milliseconds>(elapsed).count()));
  PrintLatencies("errors", latencies.errors);
  auto const late = std::count_if(
      latencies.errors.begin(), latencies.errors.end(),
      [&options](nanoseconds latency) { return latency > milliseconds(options.maxLatencyMs); });
  Print("errors_late", static_cast<std::uint64_t>(late));
  PrintLatencies("commands", latencies.commands);
  Print("descriptors_before", before.descriptors);
  Print("descriptors_after", after.descriptors);
  Print("rss_kib_before", before.residentKib);
  Print("rss_kib_after", after.residentKib);

  Check("errors_late", static_cast<std::uint64_t>(late), 0);
  Check("descriptors_after", after.descriptors, before.descriptors);
  Check("rss_kib_after", after.residentKib, before.residentKib + options.maxGrowthKib);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Run(ParseOptions(std::span(argv, static_cast<std::size_t>(argc)).subspan(1)));
  } catch (UsageError const& err) {
    std::fprintf(stderr, "soak: %s\n%s", err.what(), usage);
    return 2;
  } catch (std::exception const& err) {
    std::fprintf(stderr, "soak: %s\n", err.what());
    return 1;
  }
  return 0;
}
