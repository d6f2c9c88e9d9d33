#include "support/file_manager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "base/string_conversion.h"
#include "base/unique_fd.h"
#include "trace/hex.h"

// A file gets its name last. Its bytes, owner and mode are set on a descriptor before that, so
// nobody else sees a half or opens the file while its mode is wider than it should be, and the
// umask, which only matters when a file is created, has no effect.
//
//   Refuse    O_TMPFILE makes a file without any name, and linkat(2) gives it one, or fails when
//             the name is in use. After a crash nothing is left.
//   Replace   linkat(2) cannot replace a name, so a file with a random name beside it is renamed.
//
// Some file systems have no O_TMPFILE (NFS, FAT), and linkat(2) from a descriptor needs /proc.
// Without one of them, Refuse makes the file beside it as well, and moves it to its name unless
// that is in use. A folder has no form without a name, so it is always made in that way.
//
// All names are relative to one descriptor of the folder that holds them. A folder that another
// user moves away, or exchanges for a link, during the call is thus the same one for every step.

namespace Support {

namespace {

enum class Kind { File, Folder };

Error MakeError(Kind kind, char const* notDone, std::string const& path, std::string const& reason,
                std::string const& code = {}) {
  std::string const thing = kind == Kind::File ? "file" : "folder";
  return Error(
             thing + "-" + (code.empty() ? std::string("not-") + notDone : code),
             "The " + thing + " cannot be " + notDone + (reason.empty() ? "" : ": " + reason) + ".")
      .With("path", Base::ToUtf8(Base::ToWide(path)));
}

// The error of a failed system call. `notDone` is the participle of what cannot be done.
Error MakeSystemError(Kind kind, char const* notDone, std::string const& path, int errorNumber) {
  auto const get = [&](char const* reason, char const* code) {
    return MakeError(kind, notDone, path, reason, code).Because(Base::ExceptionPosix(errorNumber));
  };
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return get("it does not exist", "not-found");
    case EACCES:
    case EPERM:
      return get("permission is denied", "permission-denied");
    case EEXIST:
      return get("it exists already", "exists");
    default:
      return get("", "");
  }
}

// Throws the error of a system call that returned -1.
template <typename Result>
Result Check(Result result, Kind kind, char const* notDone, std::string const& path) {
  if (result == -1) throw MakeSystemError(kind, notDone, path, errno);
  return result;
}

struct Place {
  std::string folder;
  std::string name;
};

Place SplitPath(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  std::size_t const slash = path.rfind('/');
  if (slash == std::string::npos) return {".", std::move(path)};
  return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

Base::UniqueFd OpenFolder(std::string const& path) {
  return Base::UniqueFd(
      Check(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), Kind::Folder, "read", path));
}

std::string GetDescriptorPath(Base::UniqueFd const& fd) {
  return "/proc/self/fd/" + std::to_string(fd.Get());
}

std::string MakeRandomName() {
  std::array<unsigned char, 8> bytes;
  // So few bytes come whole, and at once as soon as the system has started.
  if (getrandom(bytes.data(), bytes.size(), 0) == -1)
    throw Error::FromException(Base::ExceptionPosix(errno));
  return "ktclientd-" + Trace::ToHex(bytes);
}

// Removes a temporary name in a folder unless it became the final name.
class TemporaryName {
 public:
  TemporaryName(Base::UniqueFd const& folder, std::string name, int flags)
      : _folder(folder), _name(std::move(name)), _flags(flags) {}
  TemporaryName(TemporaryName const&) = delete;
  TemporaryName& operator=(TemporaryName const&) = delete;
  ~TemporaryName() {
    if (!_name.empty()) unlinkat(_folder.Get(), _name.c_str(), _flags);
  }

  // Return -1 and errno on failure.
  int Replace(std::string const& name) {
    return Moved(renameat(_folder.Get(), _name.c_str(), _folder.Get(), name.c_str()));
  }

  int MoveUnlessExists(std::string const& name) {
    int const folder = _folder.Get();
    if (renameat2(folder, _name.c_str(), folder, name.c_str(), RENAME_NOREPLACE) == 0)
      return Moved(0);
    if (errno != EINVAL) return -1;
    // The file system, such as NFS, cannot refuse a name in use. It refuses one for a link, but
    // folders have no links: another process can make the name between the check and the rename,
    // and only an empty folder of that name is then replaced.
    if ((_flags & AT_REMOVEDIR) == 0) return linkat(folder, _name.c_str(), folder, name.c_str(), 0);
    struct stat status;
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
      errno = EEXIST;
      return -1;
    }
    return Replace(name);
  }

 private:
  int Moved(int result) {
    if (result == 0) _name.clear();
    return result;
  }

  Base::UniqueFd const& _folder;
  std::string _name;
  int const _flags;  // of unlinkat
};

// These return -1 and errno on failure.

int SetOwner(Base::UniqueFd const& fd, std::optional<FileManager::Owner> const& owner) {
  return owner ? fchownat(fd.Get(), "", owner->uid, owner->gid, AT_EMPTY_PATH) : 0;
}

int WriteAll(Base::UniqueFd const& file, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t const count = write(file.Get(), bytes.data(), bytes.size());
    if (count == -1 && errno != EINTR) return -1;
    if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return 0;
}

// Writes a folder's names to the disk. Some file systems cannot, which is no failure.
int SyncFolder(Base::UniqueFd const& folder) {
  int const result = fsync(folder.Get());
  return result == -1 && errno == EINVAL ? 0 : result;
}

Base::UniqueFd OpenRegularFile(std::string const& path, struct stat& status) {
  // O_NONBLOCK: an open FIFO without a writer reads as empty instead of waiting for one.
  int const flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  Base::UniqueFd file(open(path.c_str(), flags));
  bool const isSocket = !file && errno == ENXIO;
  if (!isSocket) {
    Check(file.Get(), Kind::File, "read", path);
    Check(fstat(file.Get(), &status), Kind::File, "read", path);
  }
  if (isSocket || !S_ISREG(status.st_mode))
    throw MakeError(Kind::File, "read", path, "it is not a regular file", "not-regular");
  return file;
}

// At most `maxSize` bytes from the file's position on.
std::string ReadBytes(Base::UniqueFd const& file, std::string const& path, std::size_t maxSize) {
  std::string bytes;
  std::array<char, 16384> piece;
  while (bytes.size() < maxSize) {
    std::size_t const wanted = std::min(piece.size(), maxSize - bytes.size());
    ssize_t const count = read(file.Get(), piece.data(), wanted);
    if (count == 0) break;
    if (count == -1 && errno == EINTR) continue;
    bytes.append(piece.data(), static_cast<std::size_t>(Check(count, Kind::File, "read", path)));
  }
  return bytes;
}

}  // namespace

void FileManager::MakeFolder(std::string const& path, mode_t mode) const {
  auto const [folderPath, name] = SplitPath(path);
  Base::UniqueFd const parent = OpenFolder(folderPath);
  auto const check = [&](int result) { Check(result, Kind::Folder, "made", path); };

  std::string const temporary = "." + MakeRandomName();
  check(mkdirat(parent.Get(), temporary.c_str(), S_IRWXU));
  TemporaryName made(parent, temporary, AT_REMOVEDIR);
  // O_PATH: the umask may have left the process no permission to read the folder.
  int const flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  Base::UniqueFd const folder(openat(parent.Get(), temporary.c_str(), flags));
  check(folder.Get());
  check(SetOwner(folder, _owner));
  check(chmod(GetDescriptorPath(folder).c_str(), mode));
  check(made.MoveUnlessExists(name));
  check(SyncFolder(parent));
}

void FileManager::WriteFile(std::string const& path, std::string_view bytes, mode_t mode,
                            IfExists ifExists) const {
  auto const [folderPath, name] = SplitPath(path);
  Base::UniqueFd const folder = OpenFolder(folderPath);
  auto const check = [&](int result) { Check(result, Kind::File, "written", path); };
  auto const fill = [&](Base::UniqueFd const& file) {
    check(WriteAll(file, bytes));
    check(SetOwner(file, _owner));
    // After the owner, whose change clears set-user-ID.
    check(fchmod(file.Get(), mode));
    check(fsync(file.Get()));
  };

  struct stat status;
  if (ifExists == IfExists::Replace &&
      fstatat(folder.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      !S_ISREG(status.st_mode)) {
    throw MakeError(Kind::File, "written", path, "it is not a regular file", "not-regular");
  }

  mode_t const modeAtFirst = S_IRUSR | S_IWUSR;
  if (ifExists == IfExists::Refuse) {
    Base::UniqueFd const file(
        openat(folder.Get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, modeAtFirst));
    if (file) {
      fill(file);
      std::string const source = GetDescriptorPath(file);
      int const result =
          linkat(AT_FDCWD, source.c_str(), folder.Get(), name.c_str(), AT_SYMLINK_FOLLOW);
      bool const hasNoProc = result == -1 && errno == ENOENT;
      if (!hasNoProc) {
        check(result);
        check(SyncFolder(folder));
        return;
      }
    }
  }

  std::string const temporary = "." + MakeRandomName();
  int const flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  Base::UniqueFd const file(openat(folder.Get(), temporary.c_str(), flags, modeAtFirst));
  check(file.Get());
  TemporaryName made(folder, temporary, 0);
  fill(file);
  check(ifExists == IfExists::Replace ? made.Replace(name) : made.MoveUnlessExists(name));
  check(SyncFolder(folder));
}

std::string FileManager::ReadFile(std::string const& path, std::size_t maxSize) {
  struct stat status;
  Base::UniqueFd const file = OpenRegularFile(path, status);
  std::string bytes = ReadBytes(file, path, maxSize);
  char excess;
  ssize_t const count = read(file.Get(), &excess, 1);
  if (Check(count, Kind::File, "read", path) == 0) return bytes;
  std::string const reason = "it is larger than " + std::to_string(maxSize) + " bytes";
  throw Error(MakeError(Kind::File, "read", path, reason, "too-large").With("maxSize", maxSize));
}

std::string FileManager::ReadFileEnd(std::string const& path, std::size_t maxSize) {
  struct stat status;
  Base::UniqueFd const file = OpenRegularFile(path, status);
  auto const size = static_cast<std::uint64_t>(status.st_size);
  if (size > maxSize) {
    Check(lseek(file.Get(), static_cast<off_t>(size - maxSize), SEEK_SET), Kind::File, "read",
          path);
  }
  return ReadBytes(file, path, maxSize);
}

namespace {

// One walk over a folder and what is below it.
class Walker {
 public:
  explicit Walker(FileManager::Bounds bounds) : _bounds(bounds) {}

  // `folder` is open; `prefix` is its path in entries, with a slash unless it is empty; `path` is
  // its path for errors; `depth` is that of its entries.
  void List(Base::UniqueFd folder, std::string const& prefix, std::string const& path, int depth) {
    std::unique_ptr<DIR, int (*)(DIR*)> const names(fdopendir(folder.Get()), closedir);
    if (!names) return Fail(Kind::Folder, path);
    int const fd = folder.Release();  // `names` has it now
    std::optional<std::set<std::string>> const first = ReadFirstNames(names.get());
    if (!first) return Fail(Kind::Folder, path);
    std::string const start = path.ends_with('/') ? path : path + "/";
    for (std::string const& name : *first) {
      if (_listing.entries.size() == _bounds.maxCount) {
        _listing.isComplete = false;
        return;
      }
      ListOne(fd, name, prefix + name, start + name, depth);
    }
  }

  FileManager::Listing TakeListing() { return std::move(_listing); }

 private:
  // The first names in order, as many as there may still be, and one more to see that there is one.
  std::optional<std::set<std::string>> ReadFirstNames(DIR* names) const {
    std::size_t const maxCount = _bounds.maxCount - _listing.entries.size();
    std::set<std::string> first;
    for (;;) {
      errno = 0;
      dirent const* const entry = readdir(names);  // NOLINT(concurrency-mt-unsafe): its own DIR
      if (entry == nullptr) break;
      std::string_view const name(entry->d_name);
      if (name == "." || name == "..") continue;
      first.emplace(name);
      if (first.size() - 1 > maxCount) first.erase(std::prev(first.end()));
    }
    if (errno != 0) return {};
    return first;
  }

  void ListOne(int folder, std::string const& name, std::string const& path,
               std::string const& fullPath, int depth) {
    struct stat status;
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) == -1)
      return Fail(Kind::File, fullPath);
    _listing.entries.push_back({path,
                                status.st_mode,
                                {status.st_uid, status.st_gid},
                                static_cast<std::uint64_t>(status.st_size)});
    if (!S_ISDIR(status.st_mode)) return;
    if (depth == _bounds.maxDepth) {
      _listing.isComplete = false;
      return;
    }
    // It may have become a link or a FIFO since then. O_DIRECTORY refuses both, and does not wait.
    int const flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    Base::UniqueFd below(openat(folder, name.c_str(), flags));
    if (!below) return Fail(Kind::Folder, fullPath);
    List(std::move(below), path + "/", fullPath, depth + 1);
  }

  void Fail(Kind kind, std::string const& path) {
    int const error = errno;
    if (error == ENOENT) return;  // removed during the walk
    _listing.errors.push_back(MakeSystemError(kind, "read", path, error));
    _listing.isComplete = false;
  }

  FileManager::Bounds const _bounds;
  FileManager::Listing _listing{{}, {}, true};
};

}  // namespace

FileManager::Listing FileManager::Walk(std::string const& folder, Bounds bounds) {
  Walker walker(bounds);
  walker.List(OpenFolder(folder), "", folder, 1);
  return walker.TakeListing();
}

TemporaryFolder::TemporaryFolder(std::string const& parent) {
  char const* const set = secure_getenv("TMPDIR");
  std::string const standard = set != nullptr && *set != '\0' ? set : "/tmp";
  std::string path = (parent.empty() ? standard : parent) + "/" + MakeRandomName();
  FileManager().MakeFolder(path, S_IRWXU);
  _path = std::move(path);
}

TemporaryFolder::TemporaryFolder(TemporaryFolder&& other) noexcept
    : _path(std::exchange(other._path, {})) {}

TemporaryFolder& TemporaryFolder::operator=(TemporaryFolder&& other) noexcept {
  std::swap(_path, other._path);  // `other` removes the old folder
  return *this;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  if (!_path.empty()) std::filesystem::remove_all(_path, ignored);
}

}  // namespace Support
