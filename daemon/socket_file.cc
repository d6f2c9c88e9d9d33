#include "daemon/socket_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "base/unique_fd.h"
#include "net/address.h"
#include "trace/trace.h"

TRACE_MODULE("main");

namespace {

constexpr std::chrono::seconds lockPatience(1);
constexpr std::chrono::milliseconds lockRetryInterval(5);

// Only a refused connection proves it. A listener that is busy, or that has another socket type,
// fails the connect with another error.
bool IsAbandoned(std::string const& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == -1 || !S_ISSOCK(status.st_mode)) return false;
  Base::UniqueFd const probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!probe) return false;
  Net::Address const address = Net::Address::FromUnixPath(path);
  return connect(probe.Get(), address.GetData(), address.GetLength()) == -1 &&
         errno == ECONNREFUSED;
}

// Waits for the lock with a deadline: every user who can read the folder can hold such a lock.
Base::UniqueFd LockFolder(std::string const& path) {
  std::string const folder = path.substr(0, path.rfind('/') + 1);
  Base::UniqueFd lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  auto const deadline = std::chrono::steady_clock::now() + lockPatience;
  while (lock && flock(lock.Get(), LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(lockRetryInterval);
  }
  return lock;
}

void RemoveFile(std::string const& path) {
  if (unlink(path.c_str()) == -1) {
    int const error = errno;
    TRACE_WARNING("Failed to remove socket file", path, error);
  } else {
    TRACE_VERBOSE("Removed socket file", path);
  }
}

}  // namespace

Base::UniqueFd SocketFile::RemoveStale(std::string const& path) {
  Base::UniqueFd lock = LockFolder(path);
  if (IsAbandoned(path)) RemoveFile(path);
  return lock;
}

SocketFile::SocketFile(std::string path) : _path(std::move(path)) {
  struct stat status {};
  if (lstat(_path.c_str(), &status) == -1) return;
  _device = status.st_dev;
  _inode = status.st_ino;
}

SocketFile::~SocketFile() {
  struct stat status {};
  if (lstat(_path.c_str(), &status) == -1) return;
  if (status.st_dev == _device && status.st_ino == _inode) RemoveFile(_path);
}
