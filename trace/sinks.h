#pragma once

#include <array>
#include <atomic>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

// Where trace lines go. Nothing here takes a lock or throws, and a line is one system call; only to
// a console whose reader is slow is it sent in as many as it takes. What writes can be called in a
// signal handler, where the crash handler does.

namespace Trace {

// Standard output and standard error.
//
// A reader that has stopped reading must not stop the process: pipes and terminals are opened anew,
// non-blocking, because the flag belongs to the open file, which other processes share. A line
// waits a second for such a reader, those after it not at all, until it reads again; what does not
// fit is dropped.
class Console {
 public:
  Console();

  // `line` ends with a line feed.
  void Write(bool toStandardError, std::string_view line) noexcept;

 private:
  struct Stream {
    Base::UniqueFd reopened;
    int fd = -1;
    bool isSocket = false;
    std::atomic<bool> stalled{false};
  };

  static void Open(Stream& stream, int fd);
  static bool WriteAll(Stream& stream, std::string_view line) noexcept;

  std::array<Stream, 2> _streams;
};

// The trace file. Its path is "trace-file", else "logging-file", else a name in the folder
// "trace-folder", else in "/tmp/": the program's log file name, or the executable's base name and
// ".log", after "<UTC date>_<time>_<pid>_" when "trace-file-prefix" is true.
//
// Opened at the first line and again when a write has failed, each time truncated, then appended
// to, so that it can be rotated by copy and truncate; mode 0600. In "/tmp/", where anybody can put
// names, it must be a regular file of this user's own under that one name.
class TraceFile {
 public:
  explicit TraceFile(std::string programLogFileName);

  // Opens the file where it is not open or a write has failed.
  void EnsureOpen() noexcept;

  // `line` ends with a line feed. Lost where the file is not open or the write fails.
  void Write(std::string_view line) noexcept;

  // As above, whatever has become of earlier lines; from the first one on the file is no longer
  // opened again. Opens a file that has not been opened yet, by the path of when this object was
  // made, and does not truncate it: another process, which this one is a forked child of, may be
  // writing to it.
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

// The trace file, opened first where it is not; null while the file sink is off.
TraceFile* GetTraceFileStream();

// The path of the trace file under the settings as they are now.
std::string GetTraceFilePath(std::string const& programLogFileName);

// The file that holds the trace code, as the dynamic loader knows it; "unknown" if it does not.
std::string GetTraceModuleFile();

}  // namespace Trace
