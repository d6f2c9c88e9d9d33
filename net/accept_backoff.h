#pragma once

#include <algorithm>

#include "base/callback.h"
#include "base/loop/thread_linux.h"
#include "base/shared.h"
#include "base/unique_fd.h"

namespace Net {

// The accept backoff of a listening socket: how long it accepts nothing after a failed accept(2).
//
// A failure that leaves the connection in the kernel's queue would repeat itself at once and
// without end. Out of descriptors or memory, the backoff lasts until there are some again, which it
// checks ten times a second; after any other failure it lasts a second.
//
// Threads:  the loop's thread.
// Lifetime: a watched backoff lives, with its `onEnd`, until `Close` or the loop's end.
class AcceptBackoff final : public Base::Shareable {
 public:
  // Keeps `reservedDescriptors` free for the process's own work. Makes the timer, because there may
  // be no descriptor left when it is needed. Throws Base::ExceptionPosix after an ERROR line.
  AcceptBackoff(Base::Shared<Base::ThreadLinux> loop, int reservedDescriptors);

  // Whether accept(2) would fail again at once. If not, the failure ended one connection only.
  static bool IsNeededAfter(int error);

  // Whether another connection would leave enough descriptors free. Begins a backoff, after a
  // WARNING line, where it would not.
  bool MayAccept();

  // Notes the number of a new connection's descriptor.
  void OnAccepted(int fd) { _highestFd = std::max(_highestFd, fd); }

  // Calls `onEnd` on the loop at the end of each backoff. Once, before `Start`.
  void Watch(Base::Task const& onEnd);

  // Begins a backoff after an accept that failed with `error`.
  void Start(int error);

  // Ends the watch without calling `onEnd`; a second call does nothing.
  void Close();

 private:
  bool HasEnded();

  Base::Shared<Base::ThreadLinux> _loop;
  Base::UniqueFd _timer;  // empty once closed
  int const _reservedDescriptors;
  int const _maxDescriptors;  // the process's limit
  int _highestFd = 0;         // of all connections so far
  bool _isOutOfResources = false;
};

}  // namespace Net
