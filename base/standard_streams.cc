#include "base/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

namespace Base {

void OpenMissingStandardStreams() {
  // open(2) takes the lowest number that is free.
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
  if (fd > STDERR_FILENO) close(fd);
}

}  // namespace Base
