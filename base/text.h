#pragma once

#include <string_view>

namespace Base {

// What isspace(3) accepts in the C locale, whatever the process's locale is.
constexpr std::string_view whiteSpace = " \t\n\v\f\r";

// The part of `text` between its leading and its trailing white space.
constexpr std::string_view TrimWhiteSpace(std::string_view text) {
  auto const first = text.find_first_not_of(whiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

}  // namespace Base
