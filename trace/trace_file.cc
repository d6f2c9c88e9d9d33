#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <filesystem>
#include <string>
#include <utility>

#include "base/unique_fd.h"
#include "trace/sinks.h"
#include "trace/time_text.h"
#include "utilities/arguments/arguments.h"

namespace Trace {

namespace {

constexpr mode_t mode = S_IRUSR | S_IWUSR;
// Non-blocking, so that opening a FIFO without a reader fails and does not wait.
constexpr int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr int yieldsForOpening = 1000;

bool IsFolderOpenToAll() {
  return GetArgument("trace-file", "").empty() && GetArgument("logging-file", "").empty() &&
         !HasArgument("trace-folder");
}

// Opens a regular file of this user that has no other name: another user could have linked any
// other file of this user under this name.
Base::UniqueFd OpenOwnFile(char const* path) noexcept {
  Base::UniqueFd file(open(path, flags | O_NOFOLLOW, mode));
  struct stat status {};
  if (!file || fstat(file.Get(), &status) == -1) return {};
  if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() || status.st_nlink != 1) return {};
  // An older file may be readable for others. Its mode changes only once its owner is known.
  if (fchmod(file.Get(), mode) == -1) return {};
  return file;
}

// Also called in a signal handler.
Base::UniqueFd OpenTraceFile(char const* path, bool isFolderOpenToAll) noexcept {
  return isFolderOpenToAll ? OpenOwnFile(path) : Base::UniqueFd(open(path, flags, mode));
}

void ReportOpenFailure(std::string const& path, std::exception const& err) {
  std::string const text = "Failed to open trace file [" + path + "] error [" + err.what() + "]\n";
  if (write(STDERR_FILENO, text.data(), text.size()) == -1) {
    // There is no other place to report it.
  }
}

std::string GetExecutableBaseName() {
  std::string name = GetTraceModuleFile();
  if (auto const slash = name.rfind('/'); slash != std::string::npos) name.erase(0, slash + 1);
  if (auto const dot = name.find('.'); dot != std::string::npos) name.erase(dot);
  return name;
}

}  // namespace

std::string GetTraceModuleFile() {
  Dl_info info{};
  bool const found = dladdr(reinterpret_cast<void const*>(&GetTraceModuleFile), &info) != 0 &&
                     info.dli_fname != nullptr;
  return found ? info.dli_fname : "unknown";
}

std::string GetTraceFilePath(std::string const& programLogFileName) {
  std::string path = GetArgument("trace-file", "");
  if (path.empty()) path = GetArgument("logging-file", "");
  if (!path.empty()) return path;

  std::string name;
  if (GetBoolArgument("trace-file-prefix", false)) {
    AppendFileTime(name, std::chrono::system_clock::now());
    name.append("_").append(std::to_string(getpid())).append("_");
  }
  name.append(programLogFileName.empty() ? GetExecutableBaseName() + ".log" : programLogFileName);
  std::filesystem::path const folder =
      HasArgument("trace-folder") ? GetArgument("trace-folder", "") : "/tmp/";
  return (folder / name).string();
}

TraceFile::TraceFile(std::string programLogFileName)
    : _programLogFileName(std::move(programLogFileName)), _isFolderOpenToAll(IsFolderOpenToAll()) {
  try {
    _firstPath = GetTraceFilePath(_programLogFileName);
  } catch (std::exception const&) {
    // Reported when the file is opened.
  }
}

void TraceFile::Write(std::string_view line) noexcept {
  int const fd = _fd.load(std::memory_order_acquire);
  if (fd == -1 || _bad.load(std::memory_order_relaxed)) return;
  ssize_t const written = write(fd, line.data(), line.size());
  bool const readerIsSlow = written == -1 && (errno == EAGAIN || errno == EINTR);
  if (written != static_cast<ssize_t>(line.size()) && !readerIsSlow) {
    _bad.store(true, std::memory_order_relaxed);
  }
}

void TraceFile::WriteInSignalHandler(std::string_view line) noexcept {
  _hasLastWords = true;
  int fd = _fd.load();
  if (fd == -1) {
    fd = OpenTraceFile(_firstPath.c_str(), _isFolderOpenToAll).Release();
    _fd.store(fd);
  }
  if (write(fd, line.data(), line.size()) == -1) {
    // There is no place to report it.
  }
}

void TraceFile::EnsureOpen() noexcept {
  bool const isOpen = _fd.load(std::memory_order_acquire) != -1 && !_bad.load();
  if (isOpen || _hasLastWords) return;
  if (!_opening.exchange(true)) {
    Reopen();
    _opening.store(false);
    return;
  }
  // Another thread is opening the file. The wait is bounded, because a forked child has no such
  // thread.
  for (int i = 0; i < yieldsForOpening && _opening.load(); ++i) sched_yield();
}

void TraceFile::Reopen() noexcept {
  std::string path;
  try {
    path = GetTraceFilePath(_programLogFileName);
    Base::UniqueFd file = OpenTraceFile(path.c_str(), _isFolderOpenToAll);
    if (!file) return;
    // A device or a FIFO fails with EINVAL: it has nothing to truncate.
    if (ftruncate(file.Get(), 0) == -1 && errno != EINVAL) return;
    int const current = _fd.load();
    if (current == -1) {
      _fd.store(file.Release(), std::memory_order_release);
    } else if (dup3(file.Get(), current, O_CLOEXEC) == -1) {
      return;
    }
    _bad.store(false);
  } catch (std::exception const& err) {
    ReportOpenFailure(path, err);
  }
}

}  // namespace Trace
