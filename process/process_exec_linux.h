#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "base/callback.h"
#include "base/loop/thread_linux.h"
#include "base/loop/watch_hold.h"
#include "base/shared.h"
#include "base/unique_fd.h"
#include "io/file_stream.h"
#include "io/file_stream_linux.h"
#include "process/process_exec.h"

namespace Process {

// A child process, whose streams and exit are watched on the loop of a thread.
//
// The program finds the environment and the working directory of this process, blocking pipes as
// its standard streams, no blocked and no ignored signal. Its other descriptors are those of this
// process that are not close-on-exec; the ends of its pipes are.
//
// Threads:  the streams are used on the loop's thread, and their completions run there, like the
//           callbacks of `WaitForExit`. All else may be called, and the last handle let go of, on
//           any thread; `Close` and the three getters of streams on one at a time. Streams that are
//           closed on another thread than the loop's are closed by a task of the loop.
// Lifetime: a child that is waited for holds its object until it exits or the loop ends, which lets
//           go of the callbacks. The end of the object closes the streams. A loop that does not run
//           again never lets go of what is closed or waited for after its end: the streams, the
//           object and the loop itself stay.
// Errors:   after `Close` the getters of streams throw Base::ExceptionPosix "Input stream
//           unavailable.", "Output stream unavailable.", "Error stream unavailable.", number -1.
class ProcessExecLinux final : public ProcessExec {
 public:
  // Starts `executableFilename`, a path or a name that is looked for in PATH, with `arguments`, the
  // first of which is the first after the program's name. Returns once the program runs; the wait
  // for that blocks the calling thread. A child that is killed before looks like a program that a
  // signal ended.
  // Throws Base::ExceptionPosix, after an ERROR line: "Invalid Argument" for a text with a zero
  // byte in it, which no program could be given; "Failed to create standard input pipe for child
  // process", the same with output and error; "Failed to create child prcess exec pipe", "Failed to
  // manipulate child prcess exec pipe", "Failed to fork process"; and with the errno of exec(3)
  // "Parent detected that child process exec failed".
  static Base::Shared<ProcessExec> Execute(Base::Shared<Base::ThreadLinux> thread,
                                           std::string const& executableFilename,
                                           std::vector<std::string> const& arguments);

  ~ProcessExecLinux() override;

  Base::Shared<IO::FileWriteStream> GetInputStream() override;
  Base::Shared<IO::FileReadStream> GetOutputStream() override;
  Base::Shared<IO::FileReadStream> GetErrorStream() override;
  void WaitForExit(Base::Task callback) override;
  bool HasExited() const override;
  std::int32_t GetExitCode() const override;
  void Close() override;
  std::int32_t GetPid() const override;

 private:
  friend Base::WatchHold<ProcessExecLinux>;

  ProcessExecLinux(std::int32_t pid, Base::Shared<IO::FileWriteStreamLinux> processInput,
                   Base::Shared<IO::FileReadStreamLinux> processOutput,
                   Base::Shared<IO::FileReadStreamLinux> processError,
                   Base::Shared<Base::ThreadLinux> thread);

  void AddExitCallback(Base::Task callback);
  void WakeLoopOnExit();
  void WakeLoopRegularly();
  void OnExited(int status);
  void OnWatchDropped() noexcept;

  std::int32_t const _pid;
  Base::Shared<IO::FileWriteStreamLinux> _processInput;  // like the next two empty once closed
  Base::Shared<IO::FileReadStreamLinux> _processOutput;
  Base::Shared<IO::FileReadStreamLinux> _processError;
  Base::Shared<Base::ThreadLinux> const _thread;
  std::int32_t _exitCode = 0;  // set before the next
  std::atomic<bool> _hasExited{false};
  std::vector<Base::Task> _exitCallbacks;  // like the next only on the loop's thread
  Base::UniqueFd _exitEvent;
};

// Runs `commandLine` in a shell (`sh -c`) to its end, on the calling thread, appends what it
// printed on standard output to `output`, and trims the white space at the start and end of that.
// Returns the command's exit code; 0 for one that a signal ended; 1, and leaves `output` alone,
// where no shell could be started, and for a command that passed a limit of process/shell_command.h
// or was cancelled.
int ExecuteSyncCommand(std::string const& commandLine, std::string& output);

}  // namespace Process
