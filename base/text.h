#pragma once

#include <algorithm>
#include <charconv>
#include <concepts>
#include <string>
#include <string_view>
#include <system_error>

#include "base/maybe.h"

// Characters and numbers in text as the C locale has them: ASCII, in any locale of the process.

namespace Base {

// What isspace(3) accepts.
constexpr std::string_view whiteSpace = " \t\n\v\f\r";

// The part of `text` between its leading and its trailing white space.
constexpr std::string_view TrimWhiteSpace(std::string_view text) {
  auto const first = text.find_first_not_of(whiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

constexpr char ToLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool IsLetterOrDigit(char c) {
  char const lower = ToLower(c);
  return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9');
}

inline std::string LowerCased(std::string_view text) {
  std::string lower(text);
  std::ranges::transform(lower, lower.begin(), ToLower);
  return lower;
}

constexpr bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, {}, ToLower, ToLower);
}

// The number that the whole of `text` is in decimal: digits, after a "-" where `Number` is signed.
// Empty for any other text and for a number out of range.
template <std::integral Number>
Maybe<Number> ParseNumber(std::string_view text) {
  Number number{};
  char const* const end = text.data() + text.size();
  auto const [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return {};
  return number;
}

}  // namespace Base
