#pragma once

#include <utility>

#include "base/buffer.h"

namespace IO {

// A read or a write that waits until its descriptor is ready: the caller's callback and buffer.
// Empty while nothing waits.
template <typename Callback>
struct PendingOperation {
  Callback callback;
  Base::ByteBuffer buffer;

  explicit operator bool() const noexcept { return static_cast<bool>(callback); }

  // Returns the operation and leaves this empty. The owner takes an operation before it completes
  // or discards the operation, because either may lead back to the owner.
  PendingOperation Take() noexcept { return std::exchange(*this, {}); }
};

}  // namespace IO
