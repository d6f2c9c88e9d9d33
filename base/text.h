#pragma once

#include <algorithm>
#include <string>
#include <string_view>

// Characters as the C locale has them: ASCII, whatever the process's locale is.

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

}  // namespace Base
