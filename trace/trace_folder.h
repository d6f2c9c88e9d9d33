#pragma once

#include <string>

#include "base/unique_fd.h"

// The trace file's folder, and the guards against what other users put there.

namespace Trace {

// A path, split for a signal handler, which cannot allocate.
struct TracePath {
  TracePath() = default;
  explicit TracePath(std::string const& path);

  std::string folder;  // "." when the path has none
  std::string name;
};

// An open folder. Everything goes by its descriptor, so that the folder that is checked is the one
// that is used. Its methods set errno when they fail.
class TraceFolder {
 public:
  explicit TraceFolder(TracePath const& path) noexcept;

  // Opens the file for appending and creates it if need be, with mode 0600. Empty on failure. A
  // guarded folder, which others can write to, yields only a file of one's own (see `IsOwnFile`).
  // For signal handlers, too.
  Base::UniqueFd Open(std::string const& name) const noexcept;

  // Renames an own file that ends with a crash report; false if that fails.
  bool KeepCrashReport(std::string const& name) const;

  // Renames `name`, if it still is the file of `fd`, to `newName`. Succeeds, too, when `name` is
  // gone or is another file. Fails for a link.
  bool RenameIfSame(int fd, std::string const& name, std::string const& newName) const noexcept;

 private:
  // Whether the file is a regular one of this user without a second name: another user could have
  // linked any other file of this user under this name.
  static bool IsOwnFile(int fd) noexcept;

  Base::UniqueFd const _fd;
  bool _isGuarded = true;
};

}  // namespace Trace
