#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace Base {

// Base class of the objects that `Shared` handles hold; it carries the reference count.
//
// Threads:  the count is atomic, so handles may be copied and released on any thread. What else the
//           object allows is its own contract.
// Lifetime: releasing the last handle deletes the object, on the thread that releases it. A
//           constructor must not make a handle to its own object: its release would be the last.
class Shareable {
 public:
  Shareable(Shareable const&) = delete;
  Shareable& operator=(Shareable const&) = delete;
  virtual ~Shareable() = default;

  void AddReference() const noexcept {
    // A count of 0 is that of a new object, which only this thread knows.
    if (_references.load(std::memory_order_relaxed) == 0) {
      _references.store(1, std::memory_order_relaxed);
      _liveObjects.fetch_add(1, std::memory_order_relaxed);
    } else {
      _references.fetch_add(1, std::memory_order_relaxed);
    }
  }

  // Returns how many references are left; at 0 the caller deletes the object.
  std::uint32_t ReleaseReference() const noexcept {
    // The last release must see what every earlier holder did with the object. A sole holder needs
    // no atomic change: nobody else can take a reference meanwhile.
    bool const isSoleHolder = _references.load(std::memory_order_acquire) == 1;
    std::uint32_t const left =
        isSoleHolder ? 0 : _references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) _liveObjects.fetch_sub(1, std::memory_order_relaxed);
    return left;
  }

  // How many objects of this process at least one handle holds. For leak checks.
  static std::size_t GetLiveObjectCount() noexcept {
    return _liveObjects.load(std::memory_order_relaxed);
  }

 protected:
  Shareable() = default;

 private:
  static inline std::atomic<std::size_t> _liveObjects{0};

  mutable std::atomic<std::uint32_t> _references{0};
};

template <typename From, typename To>
concept PointerConvertibleTo = std::is_convertible_v<From*, To*>;

// A counted handle to a `T`, or to nothing.
template <typename T>
class Shared {
 public:
  Shared() noexcept = default;
  Shared(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)
  explicit Shared(T* object) noexcept : _object(object) {
    if (_object != nullptr) _object->AddReference();
  }

  Shared(Shared const& other) noexcept : Shared(other._object) {}
  Shared(Shared&& other) noexcept : _object(std::exchange(other._object, nullptr)) {}

  template <PointerConvertibleTo<T> U>
  Shared(Shared<U> const& other) noexcept  // NOLINT(google-explicit-constructor)
      : Shared(other.Get()) {}

  template <PointerConvertibleTo<T> U>
  Shared(Shared<U>&& other) noexcept  // NOLINT(google-explicit-constructor)
      : _object(other.Detach()) {}

  // By value, so that the old object is released only when this handle holds the new one.
  Shared& operator=(Shared other) noexcept {
    std::swap(_object, other._object);
    return *this;
  }

  ~Shared() {
    if (_object != nullptr && _object->ReleaseReference() == 0) delete _object;
  }

  void Reset() noexcept { *this = Shared(); }

  // Gives up the object without releasing the reference, which becomes the caller's.
  T* Detach() noexcept { return std::exchange(_object, nullptr); }

  T* Get() const noexcept { return _object; }
  T* operator->() const noexcept { return _object; }
  T& operator*() const noexcept { return *_object; }
  explicit operator bool() const noexcept { return _object != nullptr; }

  friend bool operator==(Shared const&, Shared const&) = default;

 private:
  T* _object = nullptr;
};

template <typename T, typename... Args>
Shared<T> MakeShared(Args&&... args) {
  return Shared<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Base
