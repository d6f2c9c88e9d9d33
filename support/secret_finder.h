#pragma once

#include <re2/re2.h>

#include <bitset>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "support/redaction_rules.h"

namespace Support {

// Finds known values in a line, as whole words, ignoring the case of ASCII letters. The line may
// have them as they are, or escaped: "%2d", "\x2d", "\u002d", "\055", "\/", "\"", also with more
// backslashes, and "%252d".
//
// Adding takes constant time. Finding takes time linear in the line, times the number of different
// lengths of the values that begin with the same three bytes.
class SecretFinder {
 public:
  struct Secret {
    std::size_t name;
    std::string value;  // as it was added first
  };

  static constexpr std::size_t minLength = 3;
  static constexpr std::size_t maxCount = 100'000;

  SecretFinder();

  // Returns whether `value` is known now: false when there are too many. A value that is known
  // keeps its name. Requires `minLength` bytes.
  bool Add(std::size_t name, std::string_view value);

  using Callback = std::function<void(Span, Secret const&)>;
  void Find(std::string_view line, Callback const& callback);

 private:
  // A text without escapes: where each of its bytes begins in the line, and where the last ends.
  struct Decoded {
    std::string text;
    std::vector<std::size_t> places;
  };

  static constexpr std::size_t filterSize = 65521;  // a prime

  void FindIn(std::string_view text, std::vector<std::size_t> const* places,
              Callback const& callback);
  bool IsWord(std::string_view text, std::size_t begin, std::size_t end) const;
  static bool Decode(Decoded const& from, Decoded& to);

  RE2 _escapeAtEnd;
  // By the value in lower case. A table of the first three bytes of all values decides at almost
  // every byte of a text that none begins here.
  std::unordered_map<std::string, Secret> _secrets;
  std::unordered_map<std::size_t, std::vector<std::size_t>> _lengths;  // by the first three bytes
  std::bitset<filterSize> _keys;
  Decoded _decoded;  // kept so that a line allocates little
  Decoded _decodedTwice;
  std::string _candidate;
};

}  // namespace Support
