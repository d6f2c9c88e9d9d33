#pragma once

#include <cstdint>

#include "base/callback.h"
#include "base/shared.h"
#include "io/file_stream.h"

namespace Process {

// An external program that runs as a child of this process, with a stream on the other end of each
// of its standard streams.
//
// Threads: callbacks run on the thread of the loop that the program was started with.
// Errors:  the getters of streams throw Base::ExceptionPosix after `Close`.
class ProcessExec : public Base::Shareable {
 public:
  // The program's standard input: closing the stream is its end.
  virtual Base::Shared<IO::FileWriteStream> GetInputStream() = 0;

  // What the program prints. It goes on for as long as anyone has the other end, such as a child of
  // the program that outlives it.
  virtual Base::Shared<IO::FileReadStream> GetOutputStream() = 0;
  virtual Base::Shared<IO::FileReadStream> GetErrorStream() = 0;

  // Calls back, as a task, once the program has exited, however it did: at once where it already
  // has. The callback may be empty. Without a call the exit is not seen, and the kernel keeps its
  // record of the child (a zombie) until this process ends.
  virtual void WaitForExit(Base::Task callback) = 0;

  // Whether the exit has been seen.
  virtual bool HasExited() const = 0;

  // What the program ended with, 0 to 255; 1 while the exit has not been seen. 0 also for a program
  // that a signal ended.
  virtual std::int32_t GetExitCode() const = 0;

  // Closes the three streams, whoever else holds them; a second call finds none. The program is
  // neither signalled nor waited for.
  virtual void Close() = 0;

  virtual std::int32_t GetPid() const = 0;
};

}  // namespace Process
