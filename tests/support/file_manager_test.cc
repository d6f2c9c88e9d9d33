#include "support/file_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "tests/support/base/child.h"

namespace {

namespace fs = std::filesystem;
using Support::FileManager;
using enum FileManager::IfExists;
using Paths = std::vector<std::string>;

bool isLimited = false;  // a file system without nameless files and RENAME_NOREPLACE
std::string synced;      // 'f' for each file, 'd' for each folder
std::function<void(std::string const&)> afterStat;

}  // namespace

// The program's own functions take the place of the C library's.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): those have reserved names

extern "C" int linkat(int from, char const* source, int to, char const* name, int flags) noexcept {
  if (isLimited && from == AT_FDCWD) {
    errno = ENOENT;
    return -1;
  }
  return static_cast<int>(syscall(SYS_linkat, from, source, to, name, flags));
}

extern "C" int renameat2(int from, char const* source, int to, char const* name,
                         unsigned flags) noexcept {
  if (isLimited) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(syscall(SYS_renameat2, from, source, to, name, flags));
}

extern "C" int fsync(int fd) {
  struct stat status;
  if (fstat(fd, &status) == 0) synced += S_ISDIR(status.st_mode) ? 'd' : 'f';
  return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int fstatat(int folder, char const* name, struct stat* status, int flags) noexcept {
  auto const result = static_cast<int>(syscall(SYS_newfstatat, folder, name, status, flags));
  if (afterStat) afterStat(name);
  return result;
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace {

class FileManagerTest : public testing::Test {
 protected:
  void TearDown() override {
    isLimited = false;
    afterStat = {};
    EXPECT_EQ(CountDescriptors(), descriptorCount);
  }

  std::string Path(std::string const& name) const { return directory.path / name; }

  // "" when nothing is thrown.
  template <typename Function>
  static std::string CodeOf(Function function) {
    try {
      function();
    } catch (Support::Error const& error) {
      return error.GetCode();
    }
    return "";
  }

  std::string Make(std::string const& name) const {
    return CodeOf([&] { FileManager().MakeFolder(Path(name), 0755); });
  }

  std::string Write(std::string const& name, std::string const& bytes,
                    FileManager::IfExists ifExists) const {
    return CodeOf([&] { FileManager().WriteFile(Path(name), bytes, 0644, ifExists); });
  }

  static std::string Read(std::string const& path, std::size_t maxSize = 10) {
    return CodeOf([&] { FileManager::ReadFile(path, maxSize); });
  }

  static Paths GetPaths(FileManager::Listing const& listing) {
    Paths paths;
    for (auto const& entry : listing.entries) paths.push_back(entry.path);
    return paths;
  }

  Paths List() const { return GetPaths(FileManager::Walk(directory.path, {100, 1})); }

  // Runs `function` as a user for whom modes count.
  template <typename Function>
  void RunAsOther(Function function) {
    bool const isRoot = geteuid() == 0;
    EXPECT_TRUE(!isRoot || seteuid(65534) == 0);
    function();
    EXPECT_TRUE(!isRoot || seteuid(0) == 0);
  }

  static std::ptrdiff_t CountDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  }

  TemporaryDirectory const directory;
  std::ptrdiff_t const descriptorCount = CountDescriptors();
};

TEST_F(FileManagerTest, ANameAppearsOnceWithModeAndOwnerAndAllBytes) {
  bool const isRoot = geteuid() == 0;
  FileManager::Owner const owner{isRoot ? 1234 : getuid(), isRoot ? 5678 : getgid()};
  FileManager const manager(owner);
  ASSERT_EQ(Write("replaced", "old", Refuse), "");
  Base::UniqueFd const watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_NE(inotify_add_watch(watch.Get(), directory.path.c_str(),
                              IN_CREATE | IN_MOVED_TO | IN_MODIFY | IN_ATTRIB),
            -1);

  mode_t const before = umask(0777);
  synced.clear();
  manager.MakeFolder(Path("folder"), 02750);
  EXPECT_EQ(synced, "d");
  manager.WriteFile(Path("made"), "made", 04640, Refuse);
  EXPECT_EQ(synced, "dfd");
  manager.WriteFile(Path("replaced"), "new", 0666, Replace);
  EXPECT_EQ(synced, "dfdfd");
  umask(before);

  using Events = std::vector<std::pair<std::string, std::uint32_t>>;
  Events events;
  alignas(inotify_event) std::array<char, 16384> buffer;
  ssize_t const size = read(watch.Get(), buffer.data(), buffer.size());
  for (ssize_t at = 0; at < size;) {
    auto const* const event = reinterpret_cast<inotify_event const*>(buffer.data() + at);
    // The kernel shows a file without a name as "#" and its inode.
    if (event->len != 0 && std::isalpha(event->name[0]) != 0)
      events.emplace_back(event->name, event->mask & ~std::uint32_t{IN_ISDIR});
    at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
  }
  Events const expected = {{"folder", IN_MOVED_TO}, {"made", IN_CREATE}, {"replaced", IN_MOVED_TO}};
  EXPECT_EQ(events, expected);

  auto const listing = FileManager::Walk(directory.path, {10, 10});
  ASSERT_EQ(GetPaths(listing), (Paths{"folder", "made", "replaced"}));
  std::vector<mode_t> const modes{S_IFDIR | 02750, S_IFREG | 04640, S_IFREG | 0666};
  for (std::size_t i = 0; i < modes.size(); ++i) {
    EXPECT_EQ(listing.entries[i].mode, modes[i]) << i;
    EXPECT_EQ(listing.entries[i].owner.uid, owner.uid) << i;
    EXPECT_EQ(listing.entries[i].owner.gid, owner.gid) << i;
  }
  EXPECT_EQ(listing.entries[1].size, 4);
  EXPECT_EQ(FileManager::ReadFile(Path("made"), 4), "made");
  EXPECT_EQ(FileManager::ReadFile(Path("replaced"), 4), "new");
}

TEST_F(FileManagerTest, AFailureLeavesWhatWasThereOnEveryFileSystem) {
  ASSERT_EQ(Make("x"), "");
  fs::create_symlink("file", Path("link"));
  for (bool const isLimitedNow : {false, true}) {
    isLimited = isLimitedNow;
    fs::remove(Path("file"));
    fs::remove(Path("folder"));
    EXPECT_EQ(Write("file", "old", Refuse), "");
    EXPECT_EQ(Make("folder/"), "");
    EXPECT_EQ(Write("link", "new", Refuse), "file-exists");
    EXPECT_EQ(Write("link", "new", Replace), "file-not-regular");
    EXPECT_EQ(Make("folder"), "folder-exists");
    EXPECT_EQ(Write("none/x", "new", Replace), "folder-not-found");
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    rlimit const tiny{2, limit.rlim_max};
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &tiny);
    std::string const codes = Write("file", "new", Replace) + " " + Write("other", "new", Refuse);
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(codes, "file-not-written file-not-written");
    EXPECT_EQ(FileManager::ReadFile(Path("link"), 10), "old");
    EXPECT_EQ(List(), (Paths{"file", "folder", "link", "x"}));
  }
}

TEST_F(FileManagerTest, ReadsRegularFilesWithinTheBound) {
  std::string const bytes = std::string(1 << 14, 'a') + "z";  // more than one read
  ASSERT_EQ(Write("file", bytes, Refuse), "");
  EXPECT_EQ(FileManager::ReadFile(Path("file"), bytes.size()), bytes);
  EXPECT_EQ(Read(Path("file"), bytes.size() - 1), "file-too-large");
  EXPECT_EQ(FileManager::ReadFileEnd(Path("file"), 2), "az");
  EXPECT_EQ(FileManager::ReadFileEnd(Path("file"), bytes.size() + 1), bytes);
  EXPECT_NE(FileManager::ReadFile("/proc/self/status", std::numeric_limits<std::size_t>::max()),
            "");
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  ASSERT_EQ(mknod(Path("socket").c_str(), S_IFSOCK | 0600, 0), 0);
  for (std::string const& path : {Path("fifo"), Path("socket"), Path(""), std::string("/dev/zero")})
    EXPECT_EQ(Read(path), "file-not-regular") << path;
  EXPECT_EQ(Read(Path("none")), "file-not-found");
  fs::permissions(Path("file"), fs::perms::none);
  RunAsOther([&] { EXPECT_EQ(Read(Path("file")), "file-permission-denied"); });
  try {
    FileManager::ReadFile(Path("\xff"), 1);
    FAIL();
  } catch (Support::Error const& error) {
    EXPECT_EQ(error.GetFields().at("path"), Path("\xef\xbf\xbd"));
    EXPECT_EQ(error.GetCause()->GetFields().at("errno"), ENOENT);
  }
}

TEST_F(FileManagerTest, WalksInOrderWithinBoundsAndPastErrors) {
  for (char const* name : {"a", "a/c", "a/c/d", "e"}) ASSERT_EQ(Make(name), "");
  for (char const* name : {"a/z", "a/b"}) ASSERT_EQ(Write(name, "", Refuse), "");
  auto const expect = [&](char const* folder, FileManager::Bounds bounds, bool isComplete,
                          Paths const& paths) {
    auto const listing = FileManager::Walk(Path(folder), bounds);
    EXPECT_EQ(GetPaths(listing), paths);
    EXPECT_EQ(listing.isComplete, isComplete) << paths.size();
    return listing;
  };
  expect("", {6, 4}, true, {"a", "a/b", "a/c", "a/c/d", "a/z", "e"});
  expect("", {5, 4}, false, {"a", "a/b", "a/c", "a/c/d", "a/z"});
  expect("", {6, 2}, false, {"a", "a/b", "a/c", "a/z", "e"});
  expect("a", {1, 4}, false, {"b"});
  fs::permissions(directory.path, fs::perms(0755));
  fs::permissions(Path("a/c"), fs::perms::none);
  RunAsOther([&] {
    auto const listing = expect("", {6, 4}, false, {"a", "a/b", "a/c", "a/z", "e"});
    ASSERT_EQ(listing.errors.size(), 1);
    EXPECT_EQ(listing.errors[0].GetCode(), "folder-permission-denied");
    EXPECT_EQ(listing.errors[0].GetFields().at("path"), Path("a/c"));
  });
  fs::permissions(Path("a/c"), fs::perms::owner_all);
}

TEST_F(FileManagerTest, WalkFollowsNoLinkNotEvenOneThatReplacesAFolder) {
  TemporaryDirectory const other;
  FileManager().WriteFile(other.path / "secret", "", 0600, Refuse);
  fs::create_directory_symlink(other.path, Path("link"));
  for (char const* name : {"gone", "swapped"}) ASSERT_EQ(Make(name), "");
  afterStat = [&](std::string const& name) {
    if (name == "link") return;
    fs::remove(Path(name));
    if (name == "swapped") fs::create_directory_symlink(other.path, Path(name));
  };
  auto const listing = FileManager::Walk(directory.path, {10, 10});
  EXPECT_EQ(GetPaths(listing), (Paths{"gone", "link", "swapped"}));
  EXPECT_TRUE(S_ISLNK(listing.entries[1].mode));
  EXPECT_EQ(listing.errors.size(), 1);
}

TEST_F(FileManagerTest, ATemporaryFolderIsPrivateAndGoesWithItsOwner) {
  ASSERT_EQ(Make("kept"), "");
  {
    Support::TemporaryFolder first(directory.path);
    Support::TemporaryFolder second = std::move(first);
    second = Support::TemporaryFolder(directory.path);
    auto const listing = FileManager::Walk(directory.path, {10, 1});
    ASSERT_EQ(listing.entries.size(), 2);
    EXPECT_EQ(listing.entries[1].mode, S_IFDIR | 0700U);
    EXPECT_EQ(Path(listing.entries[1].path), second.GetPath());
    fs::create_directories(second.GetPath() + "/a/b");
    fs::create_directory_symlink(Path("kept"), second.GetPath() + "/a/link");
  }
  EXPECT_EQ(List(), (Paths{"kept"}));
}

}  // namespace
