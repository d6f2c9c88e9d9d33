#pragma once

#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"

// The file of a Unix socket that this process binds itself.
class SocketFile {
 public:
  // Removes the socket file at `path` when nobody listens on it any more. Leaves any other file
  // alone; bind(2) then fails on it. Returns a lock on the folder. The caller holds the lock until
  // it listens: another daemon that starts in between would take the new file for an abandoned one.
  static Base::UniqueFd RemoveStale(std::string const& path);

  // Becomes the owner of the file that this process has just bound at `path`.
  explicit SocketFile(std::string path);
  SocketFile(SocketFile const&) = delete;
  SocketFile& operator=(SocketFile const&) = delete;

  // Removes the file, unless another file has taken its place.
  ~SocketFile();

 private:
  std::string const _path;
  dev_t _device = 0;
  ino_t _inode = 0;
};
