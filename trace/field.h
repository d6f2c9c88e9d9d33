#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <type_traits>

#include "base/buffer.h"
#include "base/maybe.h"
#include "base/shared.h"

// The fields of a trace line, and the text of their values. A type of another folder has its own
// `RenderTraceValue(std::string& out, Type const&)`, in the namespace of the type. A rendering must
// not log: a thread builds one line at a time.

namespace Trace {

// Addresses: hexadecimal, in lower case, after "0x"; "0" for null.
void RenderTraceValue(std::string& out, void const* address);

// "true" or "false".
void RenderTraceValue(std::string& out, bool value);

// The character itself.
void RenderTraceValue(std::string& out, char value);

// Integers: decimal.
void RenderTraceValue(std::string& out, long long value);
void RenderTraceValue(std::string& out, unsigned long long value);

// Six significant digits, the default of an output stream.
void RenderTraceValue(std::string& out, double value);

// Texts: between double quotes. Deliberate: nothing is escaped, so a text may contain quotes and
// line feeds.
void RenderTraceValue(std::string& out, std::string_view text);

void RenderTraceValue(std::string& out, std::wstring_view text);  // in UTF-8

// As above, the first "trace-stringptr-maxlen" characters at most; null is `null`, unquoted.
void RenderTraceValue(std::string& out, char const* text);
void RenderTraceValue(std::string& out, wchar_t const* text);

// The exception's text, quoted.
void RenderTraceValue(std::string& out, std::exception const& err);

// "2026-05-03T17:30:41.042Z", quoted, in UTC.
void RenderTraceValue(std::string& out, std::chrono::sys_time<std::chrono::nanoseconds> time);

// "250ms", "3s", "5m", "1h", quoted.
void RenderTraceValue(std::string& out, std::chrono::milliseconds duration);
void RenderTraceValue(std::string& out, std::chrono::seconds duration);
void RenderTraceValue(std::string& out, std::chrono::minutes duration);
void RenderTraceValue(std::string& out, std::chrono::hours duration);

template <std::signed_integral Number>
void RenderTraceValue(std::string& out, Number value) {
  RenderTraceValue(out, static_cast<long long>(value));
}

template <std::unsigned_integral Number>
void RenderTraceValue(std::string& out, Number value) {
  RenderTraceValue(out, static_cast<unsigned long long>(value));
}

inline void RenderTraceValue(std::string& out, float value) {
  RenderTraceValue(out, static_cast<double>(value));
}

inline void RenderTraceValue(std::string& out, std::string const& text) {
  RenderTraceValue(out, std::string_view(text));
}

inline void RenderTraceValue(std::string& out, std::wstring const& text) {
  RenderTraceValue(out, std::wstring_view(text));
}

template <typename T>
concept NotCharacter =
    !std::same_as<std::remove_cv_t<T>, char> && !std::same_as<std::remove_cv_t<T>, wchar_t>;

template <NotCharacter T>
void RenderTraceValue(std::string& out, T* object) {
  RenderTraceValue(out, static_cast<void const*>(object));
}

// The object's address.
template <typename T>
void RenderTraceValue(std::string& out, Base::Shared<T> const& object) {
  RenderTraceValue(out, static_cast<void const*>(object.Get()));
}

// The length in bytes, not the bytes: the log must not hold what clients send and receive.
template <typename T>
void RenderTraceValue(std::string& out, Base::Buffer<T> const& buffer) {
  RenderTraceValue(out, buffer.GetLength() * sizeof(T));
}

// The value; `null` for an empty one.
template <typename T>
void RenderTraceValue(std::string& out, Base::Maybe<T> const& value) {
  if (value) {
    RenderTraceValue(out, value.Get());
  } else {
    out.append("null");
  }
}

template <typename Value>
struct TraceField {
  std::string_view key;
  Value const& value;  // lives to the end of the caller's full expression
};

// A field whose key differs from the argument as written.
template <typename Value>
TraceField<Value> As(std::string_view key, Value const& value) {
  return {key, value};
}

template <typename Value>
TraceField<Value> MakeField(std::string_view argument, Value const& value) {
  return {argument, value};
}

template <typename Value>
TraceField<Value> MakeField(std::string_view /*argument*/, TraceField<Value> const& named) {
  return named;
}

template <typename Value>
void AppendField(std::string& out, TraceField<Value> const& field) {
  // Grown once: appending three pieces costs three times as much.
  std::size_t const start = out.size();
  out.append(field.key.size() + 2, ' ');
  field.key.copy(&out[start + 1], field.key.size());
  out.back() = ':';
  RenderTraceValue(out, field.value);
}

}  // namespace Trace
