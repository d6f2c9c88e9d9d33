#pragma once

#include <optional>
#include <utility>

#include "base/exception.h"

namespace Base {

// An optional value, held inline. `Maybe<Exception>` is the status of an operation: empty for
// success, else the failure.
template <typename T>
class Maybe {
 public:
  Maybe() = default;
  Maybe(T value) : _value(std::move(value)) {}  // NOLINT(google-explicit-constructor)

  bool IsSet() const noexcept { return _value.has_value(); }
  explicit operator bool() const noexcept { return IsSet(); }

  // Throws Base::Exception "Value Not Set" when empty.
  T const& Get() const {
    if (!_value) throw Exception("Value Not Set");
    return *_value;
  }

 private:
  std::optional<T> _value;
};

}  // namespace Base
