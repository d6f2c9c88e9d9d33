#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "trace/trace_folder.h"

// Where trace lines go. Nothing here takes a lock or throws. A line is one system call; only a slow
// reader of console or syslog, and the rotation of the file, take several. Signal handlers call
// `Console::Write`, `TraceFile::WriteInSignalHandler` and `Syslog::Write`.

namespace Trace {

// Standard output and standard error.
//
// A reader that has stopped reading must not stop the process. So pipes and terminals are opened
// anew, non-blocking: setting the flag on the inherited descriptor would set it for the other
// processes that share the open file. The first line that does not fit waits for the reader. Later
// lines do not wait until the reader reads again. What does not fit is dropped.
class Console {
 public:
  Console();

  // `line` ends with a line feed. Each wait for the reader lasts `patienceMs` at most.
  void Write(bool toStandardError, std::string_view line, int patienceMs = 1000) noexcept;

 private:
  struct Stream {
    Base::UniqueFd reopened;
    int fd = -1;
    bool isSocket = false;
    std::atomic<bool> stalled{false};
  };

  static void Open(Stream& stream, int fd);
  static bool WriteAll(Stream& stream, std::string_view line, int patienceMs) noexcept;

  std::array<Stream, 2> _streams;
};

// The log service, by datagrams to /dev/log as syslog(3) sends them: facility "user", the program's
// name as identity. A service that listens on a stream socket there gets nothing.
//
// A reader that has stopped reading must not stop the process. A line that finds no room waits for
// it, but all waiting together ends after 100 ms; from then on each line that finds no room is
// dropped, until the reader has taken a line again. Whoever writes lines asks for the number of the
// dropped ones and reports it.
class Syslog {
 public:
  Syslog();

  // `priority` is a level of syslog(3). The text ends at a line feed at its end or at a zero byte.
  void Write(int priority, std::string_view line) noexcept;

  // As `Write`, but neither waits nor counts the line as lost; returns whether it was sent.
  bool WriteAtOnce(int priority, std::string_view line) noexcept;

  bool HasLostLines() const noexcept { return _lostLines.load(std::memory_order_relaxed) != 0; }

  // The number of lines lost since the last call. `AddLostLines` gives it back.
  std::uint64_t TakeLostLines() noexcept { return _lostLines.exchange(0); }
  void AddLostLines(std::uint64_t count) noexcept { _lostLines.fetch_add(count); }

 private:
  int Send(int priority, std::string_view line) noexcept;

  Base::UniqueFd const _socket;
  std::atomic<std::int64_t> _patienceEndMs{0};  // on the monotonic clock; 0: nobody waits
  std::atomic<std::uint64_t> _lostLines{0};
  static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "used in a signal handler");
};

// The trace file. Its path is "trace-file", else "logging-file", else a name in the folder
// "trace-folder", else in "/tmp/": the program's log file name, or the executable's base name and
// ".log", after "<UTC date>_<time>_<pid>_" when "trace-file-prefix" is true.
//
// The file is opened at the first line and again after a write has failed. Opening empties it;
// writing appends, so that it can also be rotated by copying and truncating it. Its mode is 0600.
// In a folder that anybody but root and this user can write to, such as "/tmp/", only a regular
// file that belongs to this user and has no second name is written, and no link is followed.
//
// A crash report is kept: when the last line of an older file is one of the crash handler, the
// first opening renames the file to its path and ".crash". It appends to a file that it cannot
// rename.
//
// With "trace-file-max-size", a line that would make the file larger first renames it to its path
// and ".1", and begins a new one. Lines that other threads write meanwhile go to either file, each
// one whole, and may exceed the size. A file that cannot be renamed goes on growing, and is tried
// again after as many bytes. A FIFO and a device have no size.
//
// A write beyond the limit RLIMIT_FSIZE fails and does not end the process: where SIGXFSZ has its
// default action, the constructor sets a handler that does nothing. A handler and not SIG_IGN,
// which the programs that this process runs would inherit.
class TraceFile {
 public:
  explicit TraceFile(std::string programLogFileName);

  // Opens the file unless it is open and the last write succeeded.
  void EnsureOpen() noexcept;

  // `line` ends with a line feed. The line is lost when the file is not open or the write fails.
  void Write(std::string_view line) noexcept;

  // As `Write`, also after an earlier write has failed. Opens the file when it was never open, by
  // the path that the settings gave when this object was made, and does not empty it: this process
  // may be a forked child, and its parent may write to the file. After this call, `EnsureOpen` no
  // longer opens the file.
  void WriteInSignalHandler(std::string_view line) noexcept;

  // The errno of a failed rotation, once for all that fail until one succeeds; else 0.
  int TakeRotationError() noexcept;

 private:
  void Reopen() noexcept;
  void WaitForOpening() const noexcept;
  void Rotate(std::int64_t lineLength) noexcept;
  // Returns an errno or 0, and the size of the file that `fd` then is.
  int ReplaceFullFile(int fd, std::int64_t lineLength, std::int64_t& size) noexcept;

  std::string const _programLogFileName;
  TracePath _firstPath;
  std::int64_t const _maxSize;  // 0: no limit
  // Never closed, only replaced in place (dup3): another thread may be about to write to it.
  std::atomic<int> _fd{-1};
  std::atomic<bool> _bad{false};
  std::atomic<bool> _opening{false};  // a thread opens or rotates the file
  std::atomic<bool> _hasLastWords{false};
  TracePath _path;                     // of the open file; only for the thread that set `_opening`
  std::atomic<bool> _hasSize{false};   // whether the open file is a regular one
  std::atomic<std::int64_t> _size{0};  // what this process knows of the file's size
  std::atomic<int> _rotationError{0};
  std::atomic<bool> _isRotationErrorTold{false};
};

// The trace file, after `EnsureOpen`; null while the file sink is off.
TraceFile* GetTraceFileStream();

// The path of the trace file by the present settings.
std::string GetTraceFilePath(std::string const& programLogFileName);

// The dynamic loader's name of the file that holds the trace code; "unknown" if it has none.
std::string GetTraceModuleFile();

}  // namespace Trace
