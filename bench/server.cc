#include "bench/server.h"

#include <cerrno>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/clients.h"

namespace Bench {

Server::Server(pid_t pid) : _directory("/proc/" + std::to_string(pid)) {
  // Unlike the files in /proc, it counts nanoseconds and includes threads that have ended.
  errno = clock_getcpuclockid(pid, &_clock);
  if (errno != 0) {
    ThrowErrno("Failed to find process " + std::to_string(pid));
  }
}

Figures Server::Read() const {
  timespec processor{};
  if (clock_gettime(_clock, &processor) == -1) {
    ThrowErrno("Failed to read the processor clock of the server");
  }
  return {std::chrono::seconds(processor.tv_sec) + std::chrono::nanoseconds(processor.tv_nsec),
          ReadResidentKib(), CountDescriptors()};
}

Figures Server::ReadSettled(std::uint64_t descriptors) const {
  using Clock = std::chrono::steady_clock;
  auto const deadline = Clock::now() + std::chrono::seconds(2);
  while (CountDescriptors() > descriptors && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return Read();
}

std::uint64_t Server::ReadResidentKib() const {
  std::ifstream status(_directory / "status");
  std::string word;
  while (status >> word && word != "VmRSS:") {
  }
  std::uint64_t size = 0;
  if (!(status >> size)) {
    throw std::runtime_error("Failed to read the memory use of the server");
  }
  return size;
}

std::uint64_t Server::CountDescriptors() const {
  std::filesystem::directory_iterator const files(_directory / "fd");
  return static_cast<std::uint64_t>(std::distance(begin(files), end(files)));
}

}  // namespace Bench
