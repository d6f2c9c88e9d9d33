#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "base/buffer.h"

namespace Trace {

// Two lower-case digits for each byte.
std::string ToHex(std::span<unsigned char const> bytes);

// The bytes whose digits are `text`, in upper or lower case. Logs an ERROR line and throws
// Base::Exception: "Invalid hex string length" for an odd number of characters, "Invalid Argument"
// for a character that is no digit.
Base::ByteBuffer FromHex(std::string_view text);

// As above, into the front of `bytes`; returns their number. Logs an ERROR line and throws
// OverflowException for more bytes than `bytes` has room for. The content of `bytes` is undefined
// after a throw.
std::size_t FromHex(std::string_view text, std::span<unsigned char> bytes);

}  // namespace Trace
