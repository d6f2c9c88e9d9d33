#include "process/pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace Process {

int MakePipe(Pipe& pipe) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) == -1) return errno;
  pipe.readEnd.Reset(ends[0]);
  pipe.writeEnd.Reset(ends[1]);
  return 0;
}

int MoveAboveStandardStreams(Pipe& pipe) {
  for (Base::UniqueFd* const end : {&pipe.readEnd, &pipe.writeEnd}) {
    if (end->Get() > STDERR_FILENO) continue;
    int const moved = fcntl(end->Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved == -1) return errno;
    end->Reset(moved);
  }
  return 0;
}

}  // namespace Process
