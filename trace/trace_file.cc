// Every write goes to one descriptor, whose number stays the same for the life of the process.
// Opening anew and rotating put another file under this number (dup3), so a writer needs no lock:
// its line goes to the old file or to the new one. The thread that sets `_opening` opens or
// rotates. A thread that finds it set waits for a moment and then writes to whichever file the
// number names, so a file can exceed its limit by a few lines.
//
// The size is counted and not asked for at each line. When the count reaches the limit, fstat(2)
// says the true size, because somebody may have truncated the file. Another process may have
// renamed the file, too, for example a second daemon with the same settings; the path then names
// another file, which is opened and not renamed.

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
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

constexpr int yieldsForOpening = 1000;

void OnFileSizeLimit(int /*signalNumber*/) {}

void SurviveFileSizeLimit() {
  struct sigaction action {};
  if (sigaction(SIGXFSZ, nullptr, &action) == -1 || action.sa_handler != SIG_DFL) return;
  action.sa_handler = &OnFileSizeLimit;
  action.sa_flags = SA_RESTART;
  sigaction(SIGXFSZ, &action, nullptr);
}

void ReportOpenFailure(std::string const& path, std::exception const& err) {
  std::string const text = "Failed to open trace file [" + path + "] error [" + err.what() + "]\n";
  if (write(STDERR_FILENO, text.data(), text.size()) == -1) {
    // There is no other place to report it.
  }
}

std::int64_t GetMaxSize() {
  auto const size = GetInt64Argument("trace-file-max-size");
  return size ? std::max<std::int64_t>(size.Get(), 0) : 0;
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
    : _programLogFileName(std::move(programLogFileName)), _maxSize(GetMaxSize()) {
  try {
    _firstPath = TracePath(GetTraceFilePath(_programLogFileName));
  } catch (std::exception const&) {
    // Reported when the file is opened.
  }
  SurviveFileSizeLimit();
}

void TraceFile::Write(std::string_view line) noexcept {
  int const fd = _fd.load(std::memory_order_acquire);
  if (fd == -1 || _bad.load(std::memory_order_relaxed)) return;
  if (_maxSize != 0 && _hasSize.load(std::memory_order_relaxed)) {
    auto const length = static_cast<std::int64_t>(line.size());
    std::int64_t const size = _size.fetch_add(length, std::memory_order_relaxed);
    if (size > 0 && size + length > _maxSize) Rotate(length);
  }
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
    fd = TraceFolder(_firstPath).Open(_firstPath.name).Release();
    _fd.store(fd);
  }
  if (write(fd, line.data(), line.size()) == -1) {
    // There is no place to report it.
  }
}

int TraceFile::TakeRotationError() noexcept {
  if (_rotationError.load(std::memory_order_relaxed) == 0) return 0;
  return _rotationError.exchange(0);
}

void TraceFile::EnsureOpen() noexcept {
  bool const isOpen = _fd.load(std::memory_order_acquire) != -1 && !_bad.load();
  if (isOpen || _hasLastWords) return;
  if (_opening.exchange(true)) {
    WaitForOpening();
    return;
  }
  Reopen();
  _opening.store(false);
}

void TraceFile::WaitForOpening() const noexcept {
  // Bounded, because a forked child has no thread that opens the file.
  for (int i = 0; i < yieldsForOpening && _opening.load(); ++i) sched_yield();
}

void TraceFile::Reopen() noexcept {
  std::string path;
  try {
    path = GetTraceFilePath(_programLogFileName);
    _path = TracePath(path);
    TraceFolder const folder(_path);
    int const current = _fd.load();
    bool const mayEmpty = current != -1 || folder.KeepCrashReport(_path.name);
    Base::UniqueFd file = folder.Open(_path.name);
    if (!file) return;
    // A device or a FIFO fails with EINVAL: it has nothing to truncate.
    if (mayEmpty && ftruncate(file.Get(), 0) == -1 && errno != EINVAL) return;
    struct stat status {};
    if (fstat(file.Get(), &status) == -1) return;
    _hasSize = S_ISREG(status.st_mode);
    _size = status.st_size;
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

void TraceFile::Rotate(std::int64_t lineLength) noexcept {
  if (_hasLastWords) return;
  if (_opening.exchange(true)) {
    WaitForOpening();
    _size.fetch_add(lineLength);
    return;
  }
  int const fd = _fd.load();
  std::int64_t size = 0;
  int const error = ReplaceFullFile(fd, lineLength, size);
  _size = size + lineLength;
  if (error == 0) {
    _isRotationErrorTold = false;
  } else if (!_isRotationErrorTold.exchange(true)) {
    _rotationError = error;
  }
  _opening.store(false);
}

int TraceFile::ReplaceFullFile(int fd, std::int64_t lineLength, std::int64_t& size) noexcept {
  try {
    struct stat status {};
    if (fstat(fd, &status) == -1) return errno;
    if (status.st_size + lineLength <= _maxSize) {
      size = status.st_size;  // somebody has truncated the file
      return 0;
    }
    TraceFolder const folder(_path);
    if (!folder.RenameIfSame(fd, _path.name, _path.name + ".1")) return errno;
    Base::UniqueFd const file = folder.Open(_path.name);
    if (!file || fstat(file.Get(), &status) == -1) return errno;
    if (dup3(file.Get(), fd, O_CLOEXEC) == -1) return errno;
    _hasSize = S_ISREG(status.st_mode);
    size = status.st_size;
    return 0;
  } catch (std::exception const&) {
    return ENOMEM;
  }
}

}  // namespace Trace
