#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>

namespace Bench {

struct Figures {
  std::chrono::nanoseconds processor{};
  std::uint64_t residentKib = 0;
  std::uint64_t descriptors = 0;
};

// The server's figures, from /proc and its processor clock.
class Server {
 public:
  // Throws std::system_error when there is no process `pid`.
  explicit Server(pid_t pid);

  // Throws std::system_error or std::runtime_error when the server has ended.
  Figures Read() const;

  // Waits up to 2 s until the server has at most `descriptors` open descriptors, and then reads the
  // figures. The server may still be closing connections, and no event reports the end of that.
  Figures ReadSettled(std::uint64_t descriptors) const;

 private:
  std::uint64_t ReadResidentKib() const;
  std::uint64_t CountDescriptors() const;

  std::filesystem::path _directory;
  clockid_t _clock{};
};

}  // namespace Bench
