#include "daemon/socket_file.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/unique_fd.h"
#include "net/address.h"
#include "trace/trace.h"

TRACE_MODULE("main");

namespace {

// Only a refused connection says so: a listener that is busy, or of another type, answers otherwise.
bool IsAbandoned(std::string const& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == -1 || !S_ISSOCK(status.st_mode)) return false;
  Base::UniqueFd const probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!probe) return false;
  Net::Address const address = Net::Address::FromUnixPath(path);
  return connect(probe.Get(), address.GetData(), address.GetLength()) == -1 &&
         errno == ECONNREFUSED;
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

void SocketFile::RemoveStale(std::string const& path) {
  if (IsAbandoned(path)) RemoveFile(path);
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
