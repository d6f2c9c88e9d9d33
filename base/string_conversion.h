#pragma once

#include <string>
#include <string_view>

// Between UTF-8 and wide text, whose characters are code points of Unicode here. Independent of the
// locale.
//
// Malformed text becomes U+FFFD, as Unicode recommends: in UTF-8 one for the longest beginning of a
// well-formed sequence, or for a byte that begins none; in wide text one for each surrogate and for
// each value beyond U+10FFFF.
// Errors: OverflowException when the result may be longer than a string can be.

namespace Base {

std::wstring ToWide(std::string_view text);

std::string ToUtf8(std::wstring_view wide);

}  // namespace Base
