#pragma once

#include "base/shared.h"

namespace Base {

// A handle that the callback of a descriptor watch or of a monitored child captures, so that the
// watch holds the object whose descriptor or child it watches.
//
// When the callback is destroyed, above all when the loop ends and discards its watches, this
// handle calls `void OnWatchDropped() noexcept` of the object. The object then discards its pending
// operations. They hold the object too, so it would never be deleted otherwise.
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
