#include "utilities/file_bytes.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>

#include "base/unique_fd.h"

ReadOutcome AppendFileBytes(std::string const& filename, std::string& bytes) {
  Base::UniqueFd const file(open(filename.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return ReadOutcome::NotOpened;
  std::array<char, 4096> piece;
  for (;;) {
    ssize_t const count = read(file.Get(), piece.data(), piece.size());
    if (count == 0) return ReadOutcome::Complete;
    if (count > 0) bytes.append(piece.data(), static_cast<std::size_t>(count));
    if (count == -1 && errno != EINTR) return ReadOutcome::Failed;
  }
}
