#pragma once

namespace Base {

// Opens "/dev/null" for those of standard input, output and error that are closed: a descriptor
// that took one of their numbers would get what is printed there. First thing in `main`, before
// there are other descriptors or threads.
void OpenMissingStandardStreams();

}  // namespace Base
