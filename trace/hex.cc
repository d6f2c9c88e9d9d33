#include "trace/hex.h"

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("hex");

namespace Trace {

namespace {

std::size_t GetByteCount(std::string_view text) {
  std::size_t const length = text.size();
  if (length % 2 != 0) {
    TRACE_ERROR("Invalid hex string length", length);
    throw Base::Exception("Invalid hex string length");
  }
  return length / 2;
}

unsigned DecodeDigit(std::string_view text, std::size_t offset) {
  char const digit = text[offset];
  if (digit >= '0' && digit <= '9') return static_cast<unsigned>(digit - '0');
  if (digit >= 'a' && digit <= 'f') return static_cast<unsigned>(digit - 'a') + 10;
  if (digit >= 'A' && digit <= 'F') return static_cast<unsigned>(digit - 'A') + 10;
  // Logs the offset, not the character: the text may be a secret.
  TRACE_ERROR("Invalid hex digit", offset);
  throw Base::Exception("Invalid Argument");
}

}  // namespace

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

Base::ByteBuffer FromHex(std::string_view text) {
  auto bytes = Base::ByteBuffer::Uninitialized(GetByteCount(text));
  FromHex(text, bytes.GetSpan());
  return bytes;
}

std::size_t FromHex(std::string_view text, std::span<unsigned char> bytes) {
  std::size_t const count = GetByteCount(text);
  std::size_t const room = bytes.size();
  if (count > room) {
    TRACE_ERROR("Hex string exceeds buffer", count, room);
    throw Base::OverflowException();
  }
  for (std::size_t i = 0; i < count; ++i) {
    unsigned const high = DecodeDigit(text, 2 * i);
    bytes[i] = static_cast<unsigned char>(high * 16 + DecodeDigit(text, 2 * i + 1));
  }
  return count;
}

}  // namespace Trace
