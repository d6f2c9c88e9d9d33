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

// A child process whose streams and exit a `ThreadLinux` watches.
//
// The program gets the environment and the working directory of this process, and blocking pipes as
// its standard streams. No signal is blocked or ignored in it. It inherits each other descriptor
// that is not close-on-exec; this object's ends of the pipes are.
//
// On another thread than the loop's, `Close` and the end of the object leave the closing of the
// streams to a task of the loop. A loop that has ended runs the task when it runs again; if it
// never does, the streams and the loop are never released.
class ProcessExecLinux final : public ProcessExec {
 public:
  // Starts `executableFilename`, a path or a name to look for in PATH. `arguments` leaves out the
  // program's name. Blocks the calling thread until the exec has succeeded or failed. A child that
  // is killed before its exec looks like a program that a signal ended.
  //
  // Throws Base::ExceptionPosix, after an ERROR line, and leaves no descriptor and no child behind:
  //   "Invalid Argument": a text has a zero byte, at which the program would see its end
  //   "Failed to create standard input pipe for child process", also "output" and "error"
  //   "Failed to create child prcess exec pipe", "Failed to manipulate child prcess exec pipe"
  //   "Failed to fork process"
  //   "Parent detected that child process exec failed", with the errno of exec(3)
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
  void WakeLoopPeriodically();
  void OnExited(int status);
  void OnWatchDropped() noexcept;

  std::int32_t const _pid;
  Base::Shared<IO::FileWriteStreamLinux> _processInput;  // this and the next two: empty once closed
  Base::Shared<IO::FileReadStreamLinux> _processOutput;
  Base::Shared<IO::FileReadStreamLinux> _processError;
  Base::Shared<Base::ThreadLinux> const _thread;
  std::int32_t _exitCode = 0;  // set before `_hasExited`, which publishes it
  std::atomic<bool> _hasExited{false};
  std::vector<Base::Task> _exitCallbacks;  // on the loop's thread only
  Base::UniqueFd _exitEvent;               // a pidfd, on the loop's thread only
};

// Runs `commandLine` by `RunInShell` (process/shell_command.h), on the calling thread. Appends the
// command's standard output to `output`, and then trims white space at both ends of `output`.
// Returns the command's exit code. Deliberate: 0 also for a command that a signal ended.
//
// Returns 1 and leaves `output` alone when no shell could be started, and when the command was
// stopped by a limit or by a cancel.
int ExecuteSyncCommand(std::string const& commandLine, std::string& output);

}  // namespace Process
