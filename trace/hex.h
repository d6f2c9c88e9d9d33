#pragma once

#include <span>
#include <string>

namespace Trace {

// Two lower-case digits a byte.
std::string ToHex(std::span<unsigned char const> bytes);

}  // namespace Trace
