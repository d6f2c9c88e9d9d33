#pragma once

#include <utility>

namespace Base {

// Owns a file descriptor; -1 is none. Never changes errno.
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

  // Hands the descriptor over to the caller.
  [[nodiscard]] int Release() noexcept { return std::exchange(_fd, -1); }

  // Closes its descriptor and takes over `fd`.
  void Reset(int fd = -1) noexcept;

 private:
  int _fd = -1;
};

}  // namespace Base
