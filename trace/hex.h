#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "base/buffer.h"

namespace Trace {

// Two lower-case digits a byte.
std::string ToHex(std::span<unsigned char const> bytes);

// The bytes that `text` is the digits of, in upper or lower case. ERROR lines before each throw:
// Base::Exception "Invalid hex string length" for an odd number of digits, "Invalid Argument" for
// what is no digit.
Base::ByteBuffer FromHex(std::string_view text);

// As above, into the front of `bytes`; returns how many they are. Throws OverflowException for more
// than there is room for; what `bytes` holds after a throw is undefined.
std::size_t FromHex(std::string_view text, std::span<unsigned char> bytes);

}  // namespace Trace
