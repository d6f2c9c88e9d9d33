#include "base/string_conversion.h"

#include <cstddef>

#include "base/exception.h"

// Written out: GLib's functions would link GLib to every program that traces, the C library's ask
// the locale.

namespace Base {

namespace {

static_assert(sizeof(wchar_t) == sizeof(char32_t));

constexpr char32_t replacement = 0xFFFD;
constexpr std::size_t maxSequenceLength = 4;

struct CodePoint {
  char32_t value;
  std::size_t length;  // in UTF-8
};

// What a leading byte says of its sequence.
struct Lead {
  std::size_t length;  // 0: no sequence begins with it
  unsigned char secondMin = 0x80;
  unsigned char secondMax = 0xBF;
};

// The bounds of the second byte leave out what is longer than it need be, the surrogates, and what
// is beyond the last code point (RFC 3629).
Lead GetLead(unsigned char byte) {
  if (byte < 0x80) return {1};
  if (byte < 0xC2) return {0};
  if (byte < 0xE0) return {2};
  if (byte == 0xE0) return {3, 0xA0};
  if (byte == 0xED) return {3, 0x80, 0x9F};
  if (byte < 0xF0) return {3};
  if (byte == 0xF0) return {4, 0x90};
  if (byte < 0xF4) return {4};
  if (byte == 0xF4) return {4, 0x80, 0x8F};
  return {0};
}

// The first one of a text that is not empty.
CodePoint Decode(std::string_view text) {
  auto const first = static_cast<unsigned char>(text.front());
  Lead const lead = GetLead(first);
  if (lead.length == 0) return {replacement, 1};
  if (lead.length == 1) return {first, 1};
  char32_t value = first & (0x7FU >> lead.length);
  for (std::size_t i = 1; i < lead.length; ++i) {
    if (i == text.size()) return {replacement, i};
    auto const byte = static_cast<unsigned char>(text[i]);
    auto const min = i == 1 ? lead.secondMin : static_cast<unsigned char>(0x80);
    auto const max = i == 1 ? lead.secondMax : static_cast<unsigned char>(0xBF);
    if (byte < min || byte > max) return {replacement, i};
    value = (value << 6U) | (byte & 0x3FU);
  }
  return {value, lead.length};
}

void Encode(std::string& out, char32_t value) {
  bool const isSurrogate = value >= 0xD800 && value < 0xE000;
  if (isSurrogate || value > 0x10FFFF) value = replacement;
  auto const append = [&out](char32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (value < 0x80) {
    append(value);
    return;
  }
  if (value < 0x800) {
    append(0xC0U | (value >> 6U));
  } else {
    if (value < 0x10000) {
      append(0xE0U | (value >> 12U));
    } else {
      append(0xF0U | (value >> 18U));
      append(0x80U | ((value >> 12U) & 0x3FU));
    }
    append(0x80U | ((value >> 6U) & 0x3FU));
  }
  append(0x80U | (value & 0x3FU));
}

}  // namespace

std::wstring ToWide(std::string_view utf8) {
  std::wstring wide;
  if (utf8.size() > wide.max_size()) throw OverflowException();
  wide.reserve(utf8.size());
  while (!utf8.empty()) {
    CodePoint const next = Decode(utf8);
    wide.push_back(static_cast<wchar_t>(next.value));
    utf8.remove_prefix(next.length);
  }
  return wide;
}

std::string ToUtf8(std::wstring_view wide) {
  std::string utf8;
  if (wide.size() > utf8.max_size() / maxSequenceLength) throw OverflowException();
  utf8.reserve(wide.size());
  for (wchar_t const c : wide) Encode(utf8, static_cast<char32_t>(c));
  return utf8;
}

}  // namespace Base
