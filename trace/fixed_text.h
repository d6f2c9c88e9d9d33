#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <string_view>

namespace Trace {

// A line of text in an array, for a signal handler, which must not allocate. What does not fit is
// dropped. The methods are named as those of std::string, so that a template can append to both.
template <std::size_t capacity>
class FixedText {
 public:
  // NOLINTBEGIN(readability-identifier-naming): std::string's
  void append(std::string_view text) { append(text.data(), text.size()); }

  void append(char const* text, std::size_t length) {
    std::size_t const kept = std::min(length, maxLength - _length);
    std::copy_n(text, kept, _text.data() + _length);
    _length += kept;
  }

  void append(std::size_t count, char character) {
    std::size_t const kept = std::min(count, maxLength - _length);
    std::fill_n(_text.data() + _length, kept, character);
    _length += kept;
  }
  // NOLINTEND(readability-identifier-naming)

  template <std::integral Number>
  void AppendNumber(Number value, int base = 10) {
    std::array<char, 24> digits;
    char const* const end =
        std::to_chars(digits.data(), digits.data() + digits.size(), value, base).ptr;
    append(digits.data(), static_cast<std::size_t>(end - digits.data()));
  }

  std::string_view GetText() const { return {_text.data(), _length}; }

  // The text and a line feed, which always fits.
  std::string_view GetLine() {
    _text[_length] = '\n';
    return {_text.data(), _length + 1};
  }

 private:
  static constexpr std::size_t maxLength = capacity - 1;

  std::array<char, capacity> _text;
  std::size_t _length = 0;
};

}  // namespace Trace
