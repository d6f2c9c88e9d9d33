#include "trace/hex.h"

#include <string_view>

namespace Trace {

std::string ToHex(std::span<unsigned char const> bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (unsigned char const byte : bytes) {
    text.push_back(digits[byte >> 4U]);
    text.push_back(digits[byte & 15U]);
  }
  return text;
}

}  // namespace Trace
