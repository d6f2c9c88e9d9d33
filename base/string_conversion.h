#pragma once

#include <string>
#include <string_view>

// Between UTF-8 and wide text, whose characters are code points of Unicode here. Independent of the
// locale. What cannot be converted becomes U+FFFD: in UTF-8 each longest beginning of a good
// sequence, or a byte that begins none; in wide text each surrogate and what is beyond U+10FFFF.
// Errors: OverflowException for more than a text can hold.

namespace Base {

std::wstring ToWide(std::string_view utf8);

std::string ToUtf8(std::wstring_view wide);

}  // namespace Base
