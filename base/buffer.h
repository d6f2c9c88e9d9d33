#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

#include "base/exception.h"

namespace Base {

// A view over shared storage: an offset and a length. Copying and slicing copy no elements; the
// views of one storage see each other's writes. The storage lives as long as its last view.
//
// Threads: views may be copied and destroyed on any thread; the elements have no lock.
template <typename T>
class Buffer {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  // No storage, length 0.
  Buffer() = default;

  // New storage of `length` elements, all zero.
  static Buffer Zeroed(std::size_t length) { return {std::make_shared<T[]>(length), 0, length}; }

  // New storage of `length` elements, which the caller fills: pages that it never writes cost no
  // memory.
  static Buffer Uninitialized(std::size_t length) {
    return {std::make_shared_for_overwrite<T[]>(length), 0, length};
  }

  static Buffer CopyOf(std::span<T const> elements) {
    Buffer copy = Uninitialized(elements.size());
    std::ranges::copy(elements, copy.GetData());
    return copy;
  }

  // A view of `length` elements, from the one at `offset` of this view on, over the same storage.
  // Throws OverflowException when they are not all inside this view.
  Buffer Slice(std::size_t offset, std::size_t length) const& {
    return Buffer(*this).Slice(offset, length);
  }
  Buffer Slice(std::size_t offset, std::size_t length) && {
    if (offset > _length || length > _length - offset) throw OverflowException();
    return {std::move(_storage), _offset + offset, length};
  }

  T* GetData() const noexcept { return _storage.get() + _offset; }
  std::size_t GetLength() const noexcept { return _length; }
  std::span<T> GetSpan() const noexcept { return {GetData(), _length}; }

 private:
  Buffer(std::shared_ptr<T[]> storage, std::size_t offset, std::size_t length)
      : _storage(std::move(storage)), _offset(offset), _length(length) {}

  std::shared_ptr<T[]> _storage;
  std::size_t _offset = 0;
  std::size_t _length = 0;
};

using ByteBuffer = Buffer<unsigned char>;

inline ByteBuffer CopyOfText(std::string_view text) {
  return ByteBuffer::CopyOf(
      std::span(reinterpret_cast<unsigned char const*>(text.data()), text.size()));
}

}  // namespace Base
