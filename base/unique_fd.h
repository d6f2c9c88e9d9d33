#pragma once

#include <utility>

namespace Base {

// Owns a file descriptor; -1 is none. Never logs, leaves errno as it was.
class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : _fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : _fd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~UniqueFd() { Reset(); }

  int Get() const noexcept { return _fd; }
  explicit operator bool() const noexcept { return _fd >= 0; }

  // Gives the descriptor to the caller.
  [[nodiscard]] int Release() noexcept { return std::exchange(_fd, -1); }

  // Closes what it holds and takes `fd`.
  void Reset(int fd = -1) noexcept;

 private:
  int _fd = -1;
};

}  // namespace Base
