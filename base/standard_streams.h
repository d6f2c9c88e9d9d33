#pragma once

namespace Base {

// Opens "/dev/null" in place of each standard stream that is closed. Otherwise another descriptor
// would get its number, and with it what is printed there. Call this first in `main`, before there
// are other descriptors or threads.
void OpenMissingStandardStreams();

}  // namespace Base
