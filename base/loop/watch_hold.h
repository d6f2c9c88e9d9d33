#pragma once

#include "base/shared.h"

namespace Base {

// Captured by the callback of a registered watch or a monitored child, here "watch", so that it
// holds the object whose descriptor or program that is. When the watch goes, above all when the
// loop ends and lets go of it, the object is told by its `void OnWatchDropped() noexcept`: it lets
// go of its pending operations, which may hold it as well.
template <typename Owner>
class WatchHold {
 public:
  explicit WatchHold(Owner& owner) : _owner(&owner) {}
  WatchHold(WatchHold&&) noexcept = default;
  ~WatchHold() {
    if (_owner) _owner->OnWatchDropped();
  }

  Owner& GetOwner() const { return *_owner; }

 private:
  Shared<Owner> _owner;
};

}  // namespace Base
