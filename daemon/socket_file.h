#pragma once

#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"

// The file of a Unix socket that this process binds itself.
class SocketFile {
 public:
  // Removes the socket file at `path` when nobody listens on it any more. Anything else there is
  // left alone, for bind(2) to fail on. Returns a lock on the folder, to be held until somebody
  // listens: between the two another daemon that starts would take the new file for an abandoned
  // one.
  static Base::UniqueFd RemoveStale(std::string const& path);

  // Takes over the file that has just been bound at `path`.
  explicit SocketFile(std::string path);
  SocketFile(SocketFile const&) = delete;
  SocketFile& operator=(SocketFile const&) = delete;

  // Removes it, unless another has taken its place.
  ~SocketFile();

 private:
  std::string const _path;
  dev_t _device = 0;
  ino_t _inode = 0;
};
