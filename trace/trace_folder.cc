#include "trace/trace_folder.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <string_view>

namespace Trace {

namespace {

constexpr mode_t mode = S_IRUSR | S_IWUSR;
// Non-blocking, so that opening a FIFO without a reader fails and does not wait.
constexpr int safeFlags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr int flags = O_WRONLY | O_CREAT | O_APPEND | safeFlags;

bool EndsWithCrashReport(int fd, off_t size) {
  std::array<char, 2048> tail;  // longer than a line of the crash handler
  off_t const start = std::max<off_t>(size - static_cast<off_t>(tail.size()), 0);
  ssize_t const length = pread(fd, tail.data(), tail.size(), start);
  if (length <= 0) return false;
  std::string_view text(tail.data(), static_cast<std::size_t>(length));
  text.remove_suffix(text.ends_with('\n') ? 1 : 0);
  std::string_view const lastLine = text.substr(text.rfind('\n') + 1);
  constexpr std::string_view time = "09:05:33.042Z";
  return lastLine.size() > time.size() &&
         lastLine.substr(time.size()).starts_with(" FATAL    crash_handler(");
}

}  // namespace

TracePath::TracePath(std::string const& path) {
  auto const slash = path.rfind('/');
  folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  name = path.substr(slash + 1);
}

TraceFolder::TraceFolder(TracePath const& path) noexcept
    : _fd(open(path.folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
  struct stat status {};
  if (!_fd || fstat(_fd.Get(), &status) == -1) return;
  bool const isOwnersTrusted = status.st_uid == 0 || status.st_uid == geteuid();
  // The bits of the group also say what an access control list grants.
  _isGuarded = !isOwnersTrusted || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

bool TraceFolder::IsOwnFile(int fd) noexcept {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
         status.st_nlink == 1;
}

Base::UniqueFd TraceFolder::Open(std::string const& name) const noexcept {
  Base::UniqueFd file(openat(_fd.Get(), name.c_str(), flags | (_isGuarded ? O_NOFOLLOW : 0), mode));
  if (!file || !_isGuarded) return file;
  if (!IsOwnFile(file.Get())) {
    file.Reset();
    errno = EPERM;
    return {};
  }
  // An older file may be readable for others. Its mode changes only once its owner is known.
  if (fchmod(file.Get(), mode) == -1) return {};
  return file;
}

bool TraceFolder::KeepCrashReport(std::string const& name) const {
  Base::UniqueFd const file(openat(_fd.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | safeFlags));
  struct stat status {};
  if (!file || !IsOwnFile(file.Get()) || fstat(file.Get(), &status) == -1) return true;
  if (!EndsWithCrashReport(file.Get(), status.st_size)) return true;
  return RenameIfSame(file.Get(), name, name + ".crash");
}

bool TraceFolder::RenameIfSame(int fd, std::string const& name,
                               std::string const& newName) const noexcept {
  struct stat own {};
  struct stat named {};
  if (!_fd || fstat(fd, &own) == -1) return false;
  if (fstatat(_fd.Get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == -1) return errno == ENOENT;
  if (S_ISLNK(named.st_mode)) {
    errno = ELOOP;
    return false;
  }
  if (own.st_dev != named.st_dev || own.st_ino != named.st_ino) return true;
  return renameat(_fd.Get(), name.c_str(), _fd.Get(), newName.c_str()) == 0;
}

}  // namespace Trace
