#include "base/string_conversion.h"

#include <utf8.h>

#include <cstddef>
#include <iterator>

#include "base/exception.h"

namespace Base {

namespace {

static_assert(sizeof(wchar_t) == sizeof(char32_t));

constexpr char32_t replacement = 0xFFFD;
constexpr std::size_t maxSequenceLength = 4;

// How many bytes at the start of `text`, which is malformed there, one replacement stands for.
// utf8::replace_invalid counts otherwise: it takes all continuation bytes that follow.
std::size_t GetMalformedLength(std::string_view text) {
  std::size_t length = 1;
  for (; length < text.size(); ++length) {
    // One byte more still begins a sequence if continuation bytes complete it.
    std::string sequence(text.substr(0, length + 1));
    sequence.append(maxSequenceLength, '\x80');
    if (utf8::find_invalid(std::string_view(sequence)) == 0) break;
  }
  return length;
}

}  // namespace

std::wstring ToWide(std::string_view text) {
  std::wstring wide;
  if (text.size() > wide.max_size()) throw OverflowException();
  wide.reserve(text.size());
  while (!text.empty()) {
    std::string_view const valid = text.substr(0, utf8::find_invalid(text));
    utf8::utf8to32(valid.begin(), valid.end(), std::back_inserter(wide));
    text.remove_prefix(valid.size());
    if (text.empty()) break;
    wide.push_back(replacement);
    text.remove_prefix(GetMalformedLength(text));
  }
  return wide;
}

std::string ToUtf8(std::wstring_view wide) {
  std::string text;
  if (wide.size() > text.max_size() / maxSequenceLength) throw OverflowException();
  text.reserve(wide.size());
  for (wchar_t const c : wide) {
    try {
      utf8::append(static_cast<char32_t>(c), text);
    } catch (utf8::invalid_code_point const&) {
      utf8::append(replacement, text);
    }
  }
  return text;
}

}  // namespace Base
