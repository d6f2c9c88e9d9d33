// Sends a known load to a server of the packet protocol and checks every response. Reports the
// throughput, the latencies and, given the server's process id, its use of resources.

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "bench/clients.h"
#include "bench/server.h"

namespace {

using Bench::Figures;
using Bench::Server;
using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

// With --connect-each the server's figures are also read after this many requests, to show leaks.
constexpr std::uint64_t earlyRequests = 1000;

constexpr char const* usage =
    "Usage: load --socket=PATH|@NAME [--stream] [--wait] [--connections=N] [--window=W]\n"
    "            [--connect-each] [--warmup=K] [--requests=R] [--idle=N] [--pid=SERVER]\n"
    "            [--request=JSON]... [--expect=JSON]...\n";

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  Bench::ClientOptions clients;
  std::uint64_t warmup = 0;
  std::uint64_t requests = 10000;
  std::uint64_t idle = 0;
  pid_t pid = 0;  // 0: not given
};

std::uint64_t ParseNumber(std::string_view name, std::string_view text, std::uint64_t minimum) {
  std::uint64_t number = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < minimum ||
      number > std::numeric_limits<std::int32_t>::max()) {
    throw UsageError(std::string(name) + " takes a number from " + std::to_string(minimum));
  }
  return number;
}

Options ParseOptions(std::span<char* const> arguments) {
  Options options;
  std::vector<std::string> requests;
  std::vector<std::string> answers;
  for (std::string_view const argument : arguments) {
    std::size_t const split = std::min(argument.find('='), argument.size());
    std::string_view const name = argument.substr(0, split);
    std::string_view const value = argument.substr(std::min(split + 1, argument.size()));
    if (argument == "--stream") {
      options.clients.stream = true;
    } else if (argument == "--wait") {
      options.clients.wait = true;
    } else if (argument == "--connect-each") {
      options.clients.connectEach = true;
    } else if (name == "--socket") {
      options.clients.socket = value;
    } else if (name == "--connections") {
      options.clients.connections = ParseNumber(name, value, 1);
    } else if (name == "--window") {
      options.clients.window = ParseNumber(name, value, 1);
    } else if (name == "--warmup") {
      options.warmup = ParseNumber(name, value, 0);
    } else if (name == "--requests") {
      options.requests = ParseNumber(name, value, 1);
    } else if (name == "--idle") {
      options.idle = ParseNumber(name, value, 0);
    } else if (name == "--pid") {
      options.pid = static_cast<pid_t>(ParseNumber(name, value, 1));
    } else if (name == "--request" && !value.empty()) {
      requests.emplace_back(value);
    } else if (name == "--expect" && !value.empty()) {
      answers.emplace_back(value);
    } else {
      throw UsageError("Invalid argument " + std::string(argument));
    }
  }
  if (options.clients.socket.empty()) {
    throw UsageError("--socket is missing");
  }
  if (options.clients.connectEach && options.clients.window > 1) {
    throw UsageError("--connect-each cannot have a window above 1");
  }
  if (requests.empty()) {
    requests.emplace_back(R"({"sensor":{"none":null}})");
  }
  if (answers.empty()) {
    answers.assign(requests.size(), R"({"status":"ErrorNotImplemented"})");
  }
  if (requests.size() != answers.size()) {
    throw UsageError("Every --request needs an --expect, or none may have one");
  }
  for (std::size_t i = 0; i < requests.size(); ++i) {
    options.clients.exchanges.push_back({requests[i], answers[i]});
  }
  return options;
}

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == -1) {
    Bench::ThrowErrno("Failed to read the limit of descriptors");
  }
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) == -1) {
    Bench::ThrowErrno("Failed to raise the limit of descriptors");
  }
}

void Print(char const* name, double value, int decimals) {
  std::printf("%-24s %.*f\n", name, decimals, value);
}

void Print(char const* name, std::uint64_t value) {
  std::printf("%-24s %" PRIu64 "\n", name, value);
}

double ToMicroseconds(nanoseconds time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

// The smallest latency that a `share` of all latencies does not exceed. `sorted` is not empty.
nanoseconds GetPercentile(std::vector<nanoseconds> const& sorted, double share) {
  auto const rank = std::ceil(share * static_cast<double>(sorted.size()));
  return sorted[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

// The result of a run of requests. `processor` is the server's processor time.
struct Measurement {
  std::vector<nanoseconds> latencies;
  nanoseconds elapsed{};
  nanoseconds processor{};
};

void Measure(Bench::Clients& clients, std::uint64_t requests, std::optional<Server> const& server,
             Measurement& measurement) {
  nanoseconds const processorBefore = server ? server->Read().processor : nanoseconds();
  Clock::time_point const start = Clock::now();
  std::vector<nanoseconds> const latencies = clients.Run(requests);
  measurement.elapsed += Clock::now() - start;
  if (server) {
    measurement.processor += server->Read().processor - processorBefore;
  }
  measurement.latencies.insert(measurement.latencies.end(), latencies.begin(), latencies.end());
}

void PrintMeasurement(Measurement measurement, bool hasServer) {
  std::vector<nanoseconds>& latencies = measurement.latencies;
  std::sort(latencies.begin(), latencies.end());
  auto const requests = static_cast<double>(latencies.size());
  double const seconds = std::chrono::duration<double>(measurement.elapsed).count();
  Print("requests", latencies.size());
  Print("seconds", seconds, 3);
  Print("requests_per_s", requests / seconds, 0);
  Print("p50_us", ToMicroseconds(GetPercentile(latencies, 0.50)), 1);
  Print("p99_us", ToMicroseconds(GetPercentile(latencies, 0.99)), 1);
  Print("max_us", ToMicroseconds(latencies.back()), 1);
  if (hasServer) {
    Print("cpu_us_per_request", ToMicroseconds(measurement.processor) / requests, 2);
  }
}

void PrintFigures(char const* when, Figures const& figures) {
  Print(("rss_kib_" + std::string(when)).c_str(), figures.residentKib);
  Print(("descriptors_" + std::string(when)).c_str(), figures.descriptors);
}

// Sends one request on a new connection. The server accepts connections in the order of their
// connects, so after this response it has accepted all earlier ones.
void AskOnce(Bench::ClientOptions options) {
  options.connections = 1;
  options.window = 1;
  options.connectEach = false;
  Bench::Clients client(options);
  client.Run(1);
  client.Finish();
}

// Opens connections that stay silent, and prints the server's memory growth for each.
std::vector<Bench::Descriptor> OpenIdle(Options const& options,
                                        std::optional<Server> const& server) {
  AskOnce(options.clients);  // the memory for a first connection is not part of the growth
  Figures const before = server ? server->Read() : Figures();
  std::vector<Bench::Descriptor> idle;
  while (idle.size() < options.idle) {
    idle.push_back(Bench::Connect(options.clients));
  }
  AskOnce(options.clients);
  if (server) {
    Figures const after = server->Read();
    auto const growth =
        static_cast<double>(after.residentKib) - static_cast<double>(before.residentKib);
    Print("rss_kib_per_idle", growth / static_cast<double>(idle.size()), 3);
  }
  return idle;
}

// Throws when the server has closed an idle connection or sent something on it.
void CheckIdle(std::vector<Bench::Descriptor> const& idle) {
  for (Bench::Descriptor const& connection : idle) {
    char byte = 0;
    if (recv(connection.Get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) != -1 || errno != EAGAIN) {
      throw std::runtime_error("The server has closed an idle connection or sent something on it");
    }
  }
}

void Run(Options const& options) {
  RaiseDescriptorLimit();
  std::optional<Server> server;
  Figures before;
  if (options.pid != 0) {
    before = server.emplace(options.pid).Read();
  }
  Bench::Clients clients(options.clients);
  clients.Run(options.warmup);
  std::vector<Bench::Descriptor> idle;
  if (options.idle > 0) {
    idle = OpenIdle(options, server);
  }

  Measurement measurement;
  std::uint64_t requests = options.requests;
  std::optional<Figures> early;
  if (server && options.clients.connectEach && requests > earlyRequests) {
    Measure(clients, earlyRequests, server, measurement);
    early = server->ReadSettled(before.descriptors + options.idle);
    requests -= earlyRequests;
  }
  Measure(clients, requests, server, measurement);
  clients.Finish();
  CheckIdle(idle);
  idle.clear();

  PrintMeasurement(std::move(measurement), server.has_value());
  if (server) {
    PrintFigures("before", before);
    if (early) {
      PrintFigures("after_1000", *early);
    }
    PrintFigures("after", server->ReadSettled(before.descriptors));
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Run(ParseOptions(std::span(argv, static_cast<std::size_t>(argc)).subspan(1)));
  } catch (UsageError const& err) {
    std::fprintf(stderr, "load: %s\n%s", err.what(), usage);
    return 2;
  } catch (std::exception const& err) {
    std::fprintf(stderr, "load: %s\n", err.what());
    return 1;
  }
  return 0;
}
