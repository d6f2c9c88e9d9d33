#include "support/secret_finder.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "base/text.h"

namespace Support {

namespace {

constexpr std::size_t npos = std::string_view::npos;

std::size_t Fold(char c) { return static_cast<unsigned char>(Base::ToLower(c)); }

std::size_t KeyOf(std::string_view text) {
  return (Fold(text[0]) << 16U) | (Fold(text[1]) << 8U) | Fold(text[2]);
}

std::optional<std::uint32_t> ParseDigits(std::string_view text, std::size_t begin,
                                         std::size_t count, int base) {
  std::uint32_t number = 0;
  if (begin + count > text.size()) return {};
  char const* const end = text.data() + begin + count;
  auto const [stop, error] = std::from_chars(text.data() + begin, end, number, base);
  if (error != std::errc() || stop != end) return {};
  return number;
}

void AppendUtf8(std::uint32_t code, std::string& out) {
  auto const tail = [&](unsigned shift) {
    out += static_cast<char>(0x80U | ((code >> shift) & 0x3fU));
  };
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xc0U | (code >> 6U));
    tail(0);
  } else if (code < 0x10000) {
    out += static_cast<char>(0xe0U | (code >> 12U));
    tail(6);
    tail(0);
  } else {
    out += static_cast<char>(0xf0U | (code >> 18U));
    tail(12);
    tail(6);
    tail(0);
  }
}

// Appends what the escape at `begin` means, and returns its length; 0 when no escape begins there.
std::size_t DecodeEscape(std::string_view text, std::size_t begin, std::string& out) {
  auto const appendByte = [&](std::optional<std::uint32_t> byte) {
    if (byte) out += static_cast<char>(*byte);
    return byte.has_value();
  };
  if (text[begin] == '%') return appendByte(ParseDigits(text, begin + 1, 2, 16)) ? 3 : 0;
  if (text[begin] != '\\') return 0;
  std::size_t const at = text.find_first_not_of('\\', begin);
  if (at == npos) return 0;
  std::size_t const length = at + 1 - begin;
  switch (text[at]) {
    case 'x':
      return appendByte(ParseDigits(text, at + 1, 2, 16)) ? length + 2 : 0;
    case '0':
    case '1':
    case '2':
    case '3':
      return appendByte(ParseDigits(text, at, 3, 8)) ? length + 2 : 0;
    case 'u': {
      constexpr std::uint32_t high = 0xd800;
      constexpr std::uint32_t low = 0xdc00;
      auto const code = ParseDigits(text, at + 1, 4, 16);
      if (!code) return 0;
      // Characters beyond 16 bits are two escapes.
      std::size_t const second = text.find_first_not_of('\\', at + 5);
      if (*code >= high && *code < low && second != npos && second > at + 5 &&
          text[second] == 'u') {
        auto const other = ParseDigits(text, second + 1, 4, 16);
        if (other && *other >= low && *other < low + 0x400) {
          AppendUtf8(0x10000 + ((*code - high) << 10U) + (*other - low), out);
          return second + 5 - begin;
        }
      }
      AppendUtf8(*code, out);
      return length + 4;
    }
    case 'b':
    case 'f':
    case 'n':
    case 'r':
    case 't':
      out += ' ';
      return length;
    default:
      if (Base::IsLetterOrDigit(text[at])) return 0;
      // "\\" is a backslash, and what comes after backslashes is itself.
      out += text[at];
      return length;
  }
}

}  // namespace

SecretFinder::SecretFinder() : _escapeAtEnd(std::string(wordStartPattern) + "$", RE2::Latin1) {}

bool SecretFinder::Add(std::size_t name, std::string_view value) {
  std::string lower = Base::LowerCased(value);
  if (_secrets.contains(lower)) return true;
  if (_secrets.size() >= maxCount) return false;
  std::size_t const key = KeyOf(lower);
  _keys.set(key % filterSize);
  std::vector<std::size_t>& lengths = _lengths[key];
  if (std::ranges::find(lengths, lower.size()) == lengths.end()) lengths.push_back(lower.size());
  _secrets.emplace(std::move(lower), Secret{name, std::string(value)});
  return true;
}

void SecretFinder::Find(std::string_view line, Callback const& callback) {
  if (_secrets.empty() || line.size() < minLength) return;
  FindIn(line, nullptr, callback);
  if (line.find_first_of("\\%") == npos) return;
  // Twice, because what is escaped can be escaped again.
  _decoded.text.assign(line);
  _decoded.places.resize(line.size() + 1);
  for (std::size_t i = 0; i <= line.size(); ++i) _decoded.places[i] = i;
  for (int i = 0; i < 2 && Decode(_decoded, _decodedTwice); ++i) {
    std::swap(_decoded, _decodedTwice);
    FindIn(_decoded.text, &_decoded.places, callback);
  }
}

void SecretFinder::FindIn(std::string_view text, std::vector<std::size_t> const* places,
                          Callback const& callback) {
  if (text.size() < minLength) return;
  std::size_t key = (Fold(text[0]) << 8U) | Fold(text[1]);
  for (std::size_t begin = 0; begin + minLength <= text.size(); ++begin) {
    key = ((key << 8U) | Fold(text[begin + 2])) & 0xffffffU;
    if (!_keys.test(key % filterSize)) continue;
    auto const lengths = _lengths.find(key);
    if (lengths == _lengths.end()) continue;
    for (std::size_t const length : lengths->second) {
      std::size_t const end = begin + length;
      if (end > text.size() || !IsWord(text, begin, end)) continue;
      _candidate.assign(text.substr(begin, length));
      std::ranges::transform(_candidate, _candidate.begin(), Base::ToLower);
      auto const secret = _secrets.find(_candidate);
      if (secret == _secrets.end()) continue;
      Span const span =
          places == nullptr ? Span{begin, end} : Span{(*places)[begin], (*places)[end]};
      callback(span, secret->second);
    }
  }
}

bool SecretFinder::IsWord(std::string_view text, std::size_t begin, std::size_t end) const {
  if (end < text.size() && Base::IsLetterOrDigit(text[end - 1]) &&
      Base::IsLetterOrDigit(text[end])) {
    return false;
  }
  if (begin == 0 || !Base::IsLetterOrDigit(text[begin]) || !Base::IsLetterOrDigit(text[begin - 1]))
    return true;
  // A letter or digit may be the end of an escape.
  constexpr std::size_t maxEscapeLength = 24;
  std::size_t const length = std::min(begin, maxEscapeLength);
  return RE2::PartialMatch(re2::StringPiece(text.data() + begin - length, length), _escapeAtEnd);
}

bool SecretFinder::Decode(Decoded const& from, Decoded& to) {
  to.text.clear();
  to.places.clear();
  bool hasEscape = false;
  for (std::size_t i = 0; i < from.text.size();) {
    std::size_t length = DecodeEscape(from.text, i, to.text);
    hasEscape = hasEscape || length > 0;
    if (length > 0) {
      to.places.resize(to.text.size(), from.places[i]);
      i += length;
      continue;
    }
    // When the first backslash of a run begins no escape, none of them does: looking at each would
    // take quadratic time.
    length = from.text[i] == '\\'
                 ? std::min(from.text.find_first_not_of('\\', i), from.text.size()) - i
                 : 1;
    to.text.append(from.text, i, length);
    to.places.insert(to.places.end(), from.places.begin() + static_cast<std::ptrdiff_t>(i),
                     from.places.begin() + static_cast<std::ptrdiff_t>(i + length));
    i += length;
  }
  to.places.push_back(from.places.back());
  return hasEscape;
}

}  // namespace Support
