#pragma once

#include <cstdint>

#include "base/callback.h"
#include "base/shared.h"
#include "io/file_stream.h"

namespace Process {

// An external program that runs as a child of this process. Each standard stream of the program is
// a pipe; this object has the other end of each pipe as a stream.
//
//   after           streams    HasExited  GetExitCode
//   start           open       false      1
//   exit, seen      unchanged  true       0 to 255
//   `Close`         gone       unchanged  unchanged
//
// The exit and `Close` may come in either order. Nobody sees the exit before a `WaitForExit`.
//
// Threads:  callbacks run on the thread of the loop with which the program was started. The streams
//           are for that thread only. All else may be called on any thread, and the last handle may
//           be released on any; `Close` and the getters of streams on one thread at a time.
// Lifetime: after `WaitForExit` the loop holds the object until the exit is seen or the loop ends.
//           The object's end closes the streams; the program goes on.
class ProcessExec : public Base::Shareable {
 public:
  // The program's standard input. When the stream is closed, the program reads its end.
  // Throws Base::ExceptionPosix "Input stream unavailable.", number -1, after `Close`.
  virtual Base::Shared<IO::FileWriteStream> GetInputStream() = 0;

  // The program's standard output. The stream ends when no process has the other end open any more;
  // a child of the program can keep it open beyond the program's exit.
  // Throws Base::ExceptionPosix "Output stream unavailable.", number -1, after `Close`.
  virtual Base::Shared<IO::FileReadStream> GetOutputStream() = 0;

  // The program's standard error, in all else as `GetOutputStream`.
  // Throws Base::ExceptionPosix "Error stream unavailable.", number -1, after `Close`.
  virtual Base::Shared<IO::FileReadStream> GetErrorStream() = 0;

  // Posts `callback` once, after the program has exited for whatever reason, and never calls it
  // from inside this call. After the exit the callback is posted at once. It may be empty. When the
  // loop ends first, the callback is discarded.
  //
  // Each program needs one such call: without it nobody reaps the child, which then stays a zombie
  // until this process ends.
  virtual void WaitForExit(Base::Task callback) = 0;

  // Whether the exit has been seen.
  virtual bool HasExited() const = 0;

  // The program's exit code; 1 while the exit has not been seen. Deliberate: 0 also for a program
  // that a signal ended, because the loop reports no status for it.
  virtual std::int32_t GetExitCode() const = 0;

  // Closes the three streams, also for others who hold them, whose pending operations then fail. A
  // second call does nothing. The program gets no signal, and nobody waits for it.
  virtual void Close() = 0;

  // The program's process id. The kernel may use the number again once the exit has been seen.
  virtual std::int32_t GetPid() const = 0;
};

}  // namespace Process
