#pragma once

#include <array>
#include <atomic>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

// Where trace lines go. Nothing here takes a lock or throws. A line is one system call; only a
// console with a slow reader takes several. The crash handler calls `Console::Write` and
// `TraceFile::WriteInSignalHandler` in a signal handler.

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

// The trace file. Its path is "trace-file", else "logging-file", else a name in the folder
// "trace-folder", else in "/tmp/": the program's log file name, or the executable's base name and
// ".log", after "<UTC date>_<time>_<pid>_" when "trace-file-prefix" is true.
//
// The file is opened at the first line and again after a write has failed. Opening truncates it;
// writing appends, so that it can be rotated by copying and truncating it. Its mode is 0600. In the
// default folder "/tmp/", where any user can create names, only a regular file that belongs to this
// user and has no second name is written.
class TraceFile {
 public:
  explicit TraceFile(std::string programLogFileName);

  // Opens the file unless it is open and the last write succeeded.
  void EnsureOpen() noexcept;

  // `line` ends with a line feed. The line is lost when the file is not open or the write fails.
  void Write(std::string_view line) noexcept;

  // As `Write`, also after an earlier write has failed. Opens the file when it was never open, by
  // the path that the settings gave when this object was made, and does not truncate it: this
  // process may be a forked child, and its parent may write to the file. After this call,
  // `EnsureOpen` no longer opens the file.
  void WriteInSignalHandler(std::string_view line) noexcept;

 private:
  void Reopen() noexcept;

  std::string const _programLogFileName;
  std::string _firstPath;
  bool const _isFolderOpenToAll;
  // Never closed, only replaced in place (dup3): another thread may be about to write to it.
  std::atomic<int> _fd{-1};
  std::atomic<bool> _bad{false};
  std::atomic<bool> _opening{false};
  std::atomic<bool> _hasLastWords{false};
};

// The trace file, after `EnsureOpen`; null while the file sink is off.
TraceFile* GetTraceFileStream();

// The path of the trace file by the present settings.
std::string GetTraceFilePath(std::string const& programLogFileName);

// The dynamic loader's name of the file that holds the trace code; "unknown" if it has none.
std::string GetTraceModuleFile();

}  // namespace Trace
