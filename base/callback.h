#pragma once

#include <concepts>
#include <functional>
#include <utility>

#include "base/shared.h"

namespace Base {

// A move-only callable that takes `Args` and returns nothing: a task, a completion, a watch.
// `MakeCallback` makes it; it is passed around as `Shared<CallbackNoCopy<Args...>>`.
//
// Releasing the last handle destroys the callable and what it captured. The callable lies in the
// same allocation; a call is one indirect call.
template <typename... Args>
class CallbackNoCopy : public Shareable {
 public:
  void Call(Args... args) const { _invoke(*this, std::forward<Args>(args)...); }

 protected:
  using Invoke = void (*)(CallbackNoCopy const&, Args&&...);

  explicit CallbackNoCopy(Invoke invoke) : _invoke(invoke) {}

 private:
  Invoke const _invoke;
};

namespace Internal {

template <typename Callable, typename... Args>
class CallbackHolder final : public CallbackNoCopy<Args...> {
 public:
  explicit CallbackHolder(Callable callable)
      : CallbackNoCopy<Args...>(&CallbackHolder::Run), _callable(std::move(callable)) {}

 private:
  static void Run(CallbackNoCopy<Args...> const& self, Args&&... args) {
    static_cast<CallbackHolder const&>(self)._callable(std::forward<Args>(args)...);
  }

  mutable Callable _callable;  // mutable: a callback may move out of what it captured
};

// The callback type that takes what a callable's call operator takes.
template <typename Member>
struct CallbackOf;

template <typename Class, typename... Args>
struct CallbackOf<void (Class::*)(Args...) const> {
  using Type = CallbackNoCopy<Args...>;
  template <typename Callable>
  using Holder = CallbackHolder<Callable, Args...>;
};

template <typename Class, typename... Args>
struct CallbackOf<void (Class::*)(Args...)> : CallbackOf<void (Class::*)(Args...) const> {};

}  // namespace Internal

// Wraps a lambda that returns nothing; the callback takes exactly the lambda's parameters.
template <typename Callable>
auto MakeCallback(Callable callable) {
  using Traits = Internal::CallbackOf<decltype(&Callable::operator())>;
  return Shared<typename Traits::Type>(
      new typename Traits::template Holder<Callable>(std::move(callable)));
}

// The copyable counterpart, for a callable that has to be kept in more than one place. An empty one
// tests false; calling it does nothing.
template <typename... Args>
class Callback {
 public:
  Callback() = default;

  template <std::invocable<Args...> Callable>
  Callback(Callable callable)  // NOLINT(google-explicit-constructor)
      : _callable(std::move(callable)) {}

  explicit operator bool() const noexcept { return static_cast<bool>(_callable); }

  void Call(Args... args) const {
    if (_callable) _callable(std::forward<Args>(args)...);
  }

 private:
  std::function<void(Args...)> _callable;
};

// What a task runner runs.
using Task = Shared<CallbackNoCopy<>>;

}  // namespace Base
