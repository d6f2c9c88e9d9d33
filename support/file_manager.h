#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/error.h"

namespace Support {

// Makes and reads files and folders for a program that may run as root while other users change the
// same folders.
//
// Errors: every function throws Support::Error with the field "path" (invalid UTF-8 in it becomes
//         U+FFFD) and, when a system call failed, that failure as its cause. The codes:
//
//           file-not-found          folder-not-found
//           file-permission-denied  folder-permission-denied
//           file-exists             folder-exists
//           file-not-read           folder-not-read           any other failure
//           file-not-written        folder-not-made           any other failure
//           file-not-regular        a folder, link, FIFO, socket or device is in its place
//           file-too-large          larger than the bound, which is the field "maxSize"
//
// Descriptors are close-on-exec from the start. The functions block as long as the disk does.
// Threads: any; several may use the same FileManager.
class FileManager {
 public:
  // An id of -1 leaves the one that the system gives.
  struct Owner {
    uid_t uid;
    gid_t gid;
  };

  // The files and folders that this manager makes belong to `owner`. Without one they belong to
  // whom the system gives them: the process, or the group of a set-group-ID folder.
  explicit FileManager(std::optional<Owner> owner = {}) : _owner(owner) {}

  // Makes one folder. It has this owner and exactly this mode, whatever the umask, from the moment
  // at which it appears under its name. The parent folder must exist and be readable; its errors
  // have its path. Needs /proc.
  void MakeFolder(std::string const& path, mode_t mode) const;

  enum class IfExists { Replace, Refuse };

  // Writes a whole file and waits until it is on the disk. Under its name it has all bytes, this
  // owner and exactly this mode, whatever the umask: a reader sees the old file or the new one. The
  // folder of the file must exist and be readable; its errors have its path.
  //
  // Refuse throws "file-exists" when the name is in use. Replace replaces a regular file only: it
  // throws "file-not-regular" for a link, too, and does not follow it.
  //
  // A failure leaves the old file, or none, and nothing else. One exception: when the folder cannot
  // be written to the disk, the new file is there already. A process that is killed while it
  // replaces a file can leave a file ".ktclientd-" and random digits.
  void WriteFile(std::string const& path, std::string_view bytes, mode_t mode,
                 IfExists ifExists) const;

  // All bytes of a regular file, or of one that `path` links to. Throws "file-too-large" when there
  // are more than `maxSize`. Does not wait for the other end of a FIFO, nor for a device.
  static std::string ReadFile(std::string const& path, std::size_t maxSize);

  // As above, but of a longer file the last `maxSize` bytes. The file's length is the one at the
  // start of the call, which is 0 for files in /proc: of these it reads the first bytes.
  static std::string ReadFileEnd(std::string const& path, std::size_t maxSize);

  // What lstat(2) says of one file, folder or other thing.
  struct Entry {
    std::string path;  // relative to the folder that is walked
    mode_t mode;       // with its type
    Owner owner;
    std::uint64_t size;  // in bytes
  };

  struct Bounds {
    std::size_t maxCount;  // of entries
    int maxDepth;          // 1: only what is in the folder itself
  };

  struct Listing {
    std::vector<Entry> entries;
    // Folders and things that could not be read. What was removed during the walk is no error.
    std::vector<Error> errors;
    // False when a bound or an error left something out. A folder at the depth of `maxDepth` counts
    // as left out, even if it is empty.
    bool isComplete;
  };

  // Everything below a folder: each folder's names in the order of their bytes, each folder before
  // its content. With too many names it lists the first ones in that order.
  //
  // Follows no link below `folder`, not even one that takes the place of a folder during the walk.
  // `folder` itself may be a link. Throws only when `folder` itself cannot be read.
  //
  // Holds at most `maxDepth` descriptors, and `maxCount` names for each of them.
  static Listing Walk(std::string const& folder, Bounds bounds);

 private:
  std::optional<Owner> _owner;
};

// A new private folder, mode 0700, which is removed with all of its content when its owner goes.
// The removal follows no link. What the process may not remove stays; so does the folder of a
// process that is killed.
//
// Threads: any, one at a time.
class TemporaryFolder {
 public:
  // Makes the folder in `parent`, or in $TMPDIR, or in /tmp. Throws the errors of
  // FileManager::MakeFolder.
  explicit TemporaryFolder(std::string const& parent = {});
  TemporaryFolder(TemporaryFolder&& other) noexcept;
  TemporaryFolder& operator=(TemporaryFolder&& other) noexcept;
  ~TemporaryFolder();

  // Empty once moved from.
  std::string const& GetPath() const { return _path; }

 private:
  std::string _path;
};

}  // namespace Support
