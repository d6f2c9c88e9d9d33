#include "process/process_exec_linux.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <system_error>
#include <utility>

#include "base/exception.h"
#include "base/text.h"
#include "process/child.h"
#include "process/pidfd.h"
#include "process/pipe.h"
#include "process/shell_command.h"
#include "trace/trace.h"

// Start. Besides the pipes of the three standard streams there is a fourth one, for the status of
// the exec. The child's end of it is close-on-exec: when the exec succeeds, the kernel closes it
// and the parent reads the end of the pipe; when the exec fails, the child writes its errno there
// and exits. So one blocking `read` in the parent tells both apart, without polling and without a
// time limit. posix_spawn(3) would do the same with less code, but it reports a failed fork and a
// failed exec by one number, and callers and the trace log keep them apart.
//
// Exit. The loop reaps its children: after each wait it calls waitpid(2) for every monitored one.
// An exit alone does not end a wait of the loop, and a SIGCHLD handler would belong to the whole
// process, whose other children are not the loop's business. So each child has a pidfd among the
// watches of the loop. The watch stays until `OnExited`, because the loop reports a child that a
// signal ended only when it looks at it for the second time. Without a pidfd (old kernel, no free
// descriptor) a scheduled task wakes the loop every second.
//
//   Execute -> WaitForExit: pidfd watched, child monitored -> pidfd readable, loop wakes and reaps
//           -> OnExited: watch removed, exit code stored, callbacks posted
//
// Ownership. The callback of the monitored child holds the object, and so does each task on the way
// to the loop. The loop discards that callback after the exit or at its own end; `OnWatchDropped`
// then discards the exit callbacks, because one that holds the object would keep it alive for good.

TRACE_MODULE("process_exec_linux");

namespace Process {

namespace {

constexpr std::size_t readSize = 4096;
// Without a pidfd, how often to wake the loop so that it looks at its children.
constexpr std::int64_t childPollMs = 1000;

// Logs `failure` and throws `raised`; for the exec-status pipe the two texts differ on purpose.
[[noreturn]] void ThrowLogged(char const* failure, char const* raised, int errorNumber) {
  TRACE_ERROR(failure, errorNumber);
  throw Base::ExceptionPosix(raised, errorNumber);
}

// A program would see the end of the argument at its zero byte.
void RequireText(std::string const& argument) {
  if (argument.find('\0') == std::string::npos) return;
  ThrowLogged("Zero byte in a process argument", "Invalid Argument", EINVAL);
}

Pipe MakeStandardPipe(char const* failure) {
  Pipe pipe;
  int error = MakePipe(pipe);
  if (error == 0) error = MoveAboveStandardStreams(pipe);
  if (error != 0) ThrowLogged(failure, failure, error);
  return pipe;
}

Pipe MakeExecStatusPipe() {
  Pipe pipe;
  if (int const error = MakePipe(pipe); error != 0) {
    ThrowLogged("Failed to create child process exec pipe",
                "Failed to create child prcess exec pipe", error);
  }
  if (int const error = MoveAboveStandardStreams(pipe); error != 0) {
    ThrowLogged("Failed to manipulate child process exec pipe",
                "Failed to manipulate child prcess exec pipe", error);
  }
  return pipe;
}

// Blocks until the child has called exec. When that failed, reaps the child and throws.
void WaitForExec(pid_t pid, Base::UniqueFd const& execStatus) {
  int childError = 0;
  ssize_t length = -1;
  int error = 0;
  do {
    length = read(execStatus.Get(), &childError, sizeof childError);
    error = errno;
  } while (length == -1 && error == EINTR);
  if (length == 0) return;
  if (length == -1) {
    childError = error;
    // The program may be running already, and the wait below is for its end.
    kill(pid, SIGKILL);
  } else {
    // For the child, which must not log between its fork and its exec: see process/child.cc.
    TRACE_ERROR("Failed to exec process", Trace::As("error", childError));
  }
  while (waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
  }
  TRACE_ERROR("Parent detected that child process exec failed", childError);
  throw Base::ExceptionPosix("Parent detected that child process exec failed", childError);
}

template <typename Stream>
void CloseQuietly(Base::Shared<Stream> const& stream) {
  if (!stream) return;
  try {
    stream->Close();
  } catch (Base::Exception const&) {
    // The stream has logged the failure, and the other streams still need to be closed.
  }
}

}  // namespace

Base::Shared<ProcessExec> ProcessExecLinux::Execute(Base::Shared<Base::ThreadLinux> thread,
                                                    std::string const& executableFilename,
                                                    std::vector<std::string> const& arguments) {
  RequireText(executableFilename);
  for (std::string const& argument : arguments) RequireText(argument);
  Pipe input = MakeStandardPipe("Failed to create standard input pipe for child process");
  Pipe output = MakeStandardPipe("Failed to create standard output pipe for child process");
  Pipe error = MakeStandardPipe("Failed to create standard error pipe for child process");
  TRACE_VERBOSE("Attempting to execute process", executableFilename);
  Pipe execStatus = MakeExecStatusPipe();

  std::vector<std::string> words{executableFilename};
  for (std::string const& i : arguments) {
    TRACE_VERBOSE("Process Argument", i);
    words.push_back(i);
  }
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  pid_t const pid = StartChild(argv.data(), {input.readEnd.Get(), output.writeEnd.Get(),
                                             error.writeEnd.Get(), execStatus.writeEnd.Get()});
  if (pid == -1) {
    int const errorNumber = errno;
    ThrowLogged("Failed to fork process", "Failed to fork process", errorNumber);
  }
  input.readEnd.Reset();
  output.writeEnd.Reset();
  error.writeEnd.Reset();
  execStatus.writeEnd.Reset();
  WaitForExec(pid, execStatus.readEnd);

  // `FileStreamLinux` makes its end of the pipe non-blocking. The child's end is an open file
  // description of its own and stays blocking, as programs expect.
  auto const attach = [&thread](Base::UniqueFd& end) {
    return Base::MakeShared<IO::FileStreamLinux>(std::move(end), thread);
  };
  return Base::Shared<ProcessExec>(new ProcessExecLinux(
      pid, Base::MakeShared<IO::FileWriteStreamLinux>(attach(input.writeEnd)),
      Base::MakeShared<IO::FileReadStreamLinux>(attach(output.readEnd), readSize),
      Base::MakeShared<IO::FileReadStreamLinux>(attach(error.readEnd), readSize), thread));
}

ProcessExecLinux::ProcessExecLinux(std::int32_t pid,
                                   Base::Shared<IO::FileWriteStreamLinux> processInput,
                                   Base::Shared<IO::FileReadStreamLinux> processOutput,
                                   Base::Shared<IO::FileReadStreamLinux> processError,
                                   Base::Shared<Base::ThreadLinux> thread)
    : _pid(pid),
      _processInput(std::move(processInput)),
      _processOutput(std::move(processOutput)),
      _processError(std::move(processError)),
      _thread(std::move(thread)) {
  TRACE_VERBOSE("Created process", this, _processInput, _processOutput, _processError, _thread);
}

ProcessExecLinux::~ProcessExecLinux() {
  Close();
  TRACE_VERBOSE("Process destroyed", this);
}

Base::Shared<IO::FileWriteStream> ProcessExecLinux::GetInputStream() {
  if (!_processInput) {
    TRACE_VERBOSE("Input stream unavailable.");
    throw Base::ExceptionPosix("Input stream unavailable.", -1);
  }
  return _processInput;
}

Base::Shared<IO::FileReadStream> ProcessExecLinux::GetOutputStream() {
  if (!_processOutput) {
    TRACE_VERBOSE("Output stream unavailable.");
    throw Base::ExceptionPosix("Output stream unavailable.", -1);
  }
  return _processOutput;
}

Base::Shared<IO::FileReadStream> ProcessExecLinux::GetErrorStream() {
  if (!_processError) {
    TRACE_VERBOSE("Error stream unavailable.");
    throw Base::ExceptionPosix("Error stream unavailable.", -1);
  }
  return _processError;
}

void ProcessExecLinux::WaitForExit(Base::Task callback) {
  if (_thread->IsCurrentThread()) {
    AddExitCallback(std::move(callback));
    return;
  }
  _thread->PostTask(Base::MakeCallback([self = Base::Shared(this), callback = std::move(callback)] {
    self->AddExitCallback(callback);
  }));
}

void ProcessExecLinux::AddExitCallback(Base::Task callback) {
  if (_hasExited) {
    if (callback) _thread->PostTask(std::move(callback));
    return;
  }
  if (_exitCallbacks.empty()) {
    // Before the loop monitors the child: monitoring may reap it, and then its id can be reused.
    WakeLoopOnExit();
    _thread->MonitorChildProcess(
        _pid, Base::MakeCallback([hold = Base::WatchHold(*this)](int /*pid*/, int status) {
          hold.GetOwner().OnExited(status);
        }));
  }
  _exitCallbacks.push_back(std::move(callback));
}

void ProcessExecLinux::WakeLoopOnExit() {
  // It only wakes the loop, which looks at its children after each wait.
  auto const onExitEvent = Base::MakeCallback([](int /*fd*/, int /*events*/) {});
  _exitEvent = OpenPidfd(_pid);
  int error = errno;
  try {
    if (_exitEvent) {
      _thread->AddWatch(_exitEvent.Get(), EPOLLIN, onExitEvent);
      return;
    }
  } catch (Base::ExceptionPosix const& err) {
    error = err.GetErrorCode();
    _exitEvent.Reset();
  }
  TRACE_WARNING("Failed to watch process exit. Will look regularly.", this, _pid, error);
  WakeLoopPeriodically();
}

void ProcessExecLinux::WakeLoopPeriodically() {
  if (_hasExited) return;
  _thread->PostScheduledTask(childPollMs, Base::MakeCallback([self = Base::Shared(this)] {
                               self->WakeLoopPeriodically();
                             }));
}

void ProcessExecLinux::OnExited(int status) {
  if (_exitEvent) _thread->RemoveWatch(_exitEvent.Get());
  _exitEvent.Reset();
  // Deliberate: exit code 0 for a child that a signal ended, because the loop reports status 0.
  std::int32_t const exitCode = WEXITSTATUS(status);
  _exitCode = exitCode;
  _hasExited = true;
  TRACE_VERBOSE("Process exited", this, _pid, exitCode);
  for (Base::Task& callback : std::exchange(_exitCallbacks, {})) {
    if (callback) _thread->PostTask(std::move(callback));
  }
}

void ProcessExecLinux::OnWatchDropped() noexcept {
  // They leave the field before they are destroyed: a destructor may call this object. After the
  // exit there are none.
  auto const callbacks = std::exchange(_exitCallbacks, {});
}

bool ProcessExecLinux::HasExited() const { return _hasExited; }

std::int32_t ProcessExecLinux::GetExitCode() const { return _hasExited ? _exitCode : 1; }

std::int32_t ProcessExecLinux::GetPid() const { return _pid; }

void ProcessExecLinux::Close() {
  auto closeStreams = [input = std::exchange(_processInput, {}),
                       output = std::exchange(_processOutput, {}),
                       error = std::exchange(_processError, {})] {
    CloseQuietly(input);
    CloseQuietly(output);
    CloseQuietly(error);
  };
  if (_thread->IsCurrentThread()) {
    closeStreams();
  } else {
    _thread->PostTask(Base::MakeCallback(std::move(closeStreams)));
  }
  TRACE_VERBOSE("Process closed", this, _pid);
}

int ExecuteSyncCommand(std::string const& commandLine, std::string& output) {
  ShellResult const result = RunInShell(commandLine);
  if (result.errorCode != 0) {
    int const errorCode = result.errorCode;
    std::string const errorMessage = std::generic_category().message(errorCode);
    TRACE_VERBOSE("Sync command failed", commandLine, errorCode, errorMessage);
    return 1;
  }
  if (result.wasStopped) return 1;
  int const status = result.status;
  int const exitCode = result.exitCode;
  output = std::string(Base::TrimWhiteSpace(output + result.output));
  TRACE_VERBOSE("Sync command executed", commandLine, status, exitCode, output);
  return exitCode;
}

}  // namespace Process
