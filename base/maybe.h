#pragma once

#include <optional>
#include <utility>

#include "base/exception.h"

namespace Base {

// An optional value, held inline. As the status of an operation (`Maybe<Exception>`) an empty one
// is success and a set one says what failed.
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
