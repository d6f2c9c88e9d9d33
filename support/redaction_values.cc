#include "support/redaction_values.h"

#include <algorithm>
#include <array>
#include <optional>

#include "base/text.h"

namespace Support {

namespace {

constexpr std::size_t npos = std::string_view::npos;

enum class Bare { ToSpace, ToLineEnd };

struct Quote {
  char mark = '"';
  std::size_t backslashes = 0;

  std::size_t GetLength() const { return backslashes + 1; }
};

bool IsQuote(char c) { return c == '"' || c == '\''; }
bool IsSpace(char c) { return Base::whiteSpace.find(c) != npos; }
bool IsWordCharacter(char c) {
  return Base::IsLetterOrDigit(c) || c == '_' || c == '-' || c == '.';
}

// Text in JSON that is text in JSON has one backslash before a quote, the next level has three.
bool IsLevel(std::size_t backslashes) { return (backslashes & (backslashes + 1)) == 0; }

std::optional<Quote> QuoteAt(std::string_view line, std::size_t begin) {
  std::size_t const at = line.find_first_not_of('\\', begin);
  if (at == npos || !IsQuote(line[at]) || !IsLevel(at - begin)) return {};
  return Quote{line[at], at - begin};
}

std::optional<Quote> QuoteBefore(std::string_view line, std::size_t end) {
  if (end == 0 || !IsQuote(line[end - 1])) return {};
  std::size_t begin = end - 1;
  while (begin > 0 && line[begin - 1] == '\\') --begin;
  if (!IsLevel(end - 1 - begin)) return {};
  return Quote{line[end - 1], end - 1 - begin};
}

// The begin of the quote that closes `quote`, or of the one that closes the text around it.
std::size_t FindClosing(std::string_view line, std::size_t begin, Quote quote) {
  std::size_t const period = 2 * quote.GetLength();
  std::size_t backslashes = 0;
  for (std::size_t i = begin; i < line.size(); ++i) {
    if (line[i] == '\\') {
      ++backslashes;
      continue;
    }
    if (line[i] == quote.mark && backslashes % period == quote.backslashes)
      return i - quote.backslashes;
    if (line[i] == '"' && backslashes < quote.backslashes) return i - backslashes;
    backslashes = 0;
  }
  return npos;
}

// Whether the next value of a query begins: "&name=".
bool IsNextField(std::string_view text) {
  for (std::string_view const ampersand : {"&", "\\u0026"}) {
    if (!text.starts_with(ampersand)) continue;
    text.remove_prefix(ampersand.size());
    auto const end = std::ranges::find_if_not(text, IsWordCharacter);
    return end != text.begin() && end != text.end() && *end == '=';
  }
  return false;
}

// The end of a bare word. A quote inside it opens a part with white space, as in a shell.
std::size_t FindWordEnd(std::string_view line, std::size_t begin, bool isAfterQuote) {
  std::size_t i = begin;
  while (i < line.size() && !IsSpace(line[i])) {
    if ((line[i] == '&' || line[i] == '\\') && IsNextField(line.substr(i))) break;
    if (line[i] == '\\') {
      i += 2;
      continue;
    }
    bool const isInside = i > begin && Base::IsLetterOrDigit(line[i - 1]) && i + 1 < line.size() &&
                          Base::IsLetterOrDigit(line[i + 1]);
    if (IsQuote(line[i]) && (isAfterQuote || isInside)) {
      std::size_t const closing = FindClosing(line, i + 1, {line[i], 0});
      if (closing != npos) i = closing;
    }
    ++i;
  }
  return std::min(i, line.size());
}

// The end of "[x, y]".
std::size_t FindBracketEnd(std::string_view line, std::size_t begin) {
  constexpr std::string_view opening = "[({";
  constexpr std::string_view closing = "])}";
  std::size_t const kind = begin < line.size() ? opening.find(line[begin]) : npos;
  if (kind == npos) return begin;
  return std::min(line.find(closing[kind], begin), line.size());
}

std::size_t FindWordBegin(std::string_view line, std::size_t end) {
  while (end > 0 && IsWordCharacter(line[end - 1])) --end;
  return end;
}

// Without what belongs to the text around the value.
Span Trimmed(std::string_view line, Span span) {
  constexpr std::string_view surroundings = " \t\r\n\v\f\"',;)]}\\";
  while (span.begin < span.end && surroundings.find(line[span.end - 1]) != npos) --span.end;
  return span;
}

Span FindValue(std::string_view line, Span key, Bare bare) {
  std::size_t const begin = key.end;
  std::string_view const keyText = line.substr(key.begin, key.end - key.begin);
  if (keyText.find_first_of("\"'") == npos) {
    if (auto const quote = QuoteBefore(line, FindWordBegin(line, key.begin)))
      return {begin, std::min(FindClosing(line, begin, *quote), line.size())};
  }
  if (auto const quote = QuoteAt(line, begin)) {
    std::size_t const valueBegin = begin + quote->GetLength();
    std::size_t const closing = FindClosing(line, valueBegin, *quote);
    if (closing == npos) return Trimmed(line, {valueBegin, line.size()});
    std::size_t const after = std::min(closing + quote->GetLength(), line.size());
    bool const isOuter = !QuoteAt(line, closing) || line[after - 1] != quote->mark;
    bool const isEnd = isOuter || after == line.size() || IsSpace(line[after]) ||
                       std::string_view(",;:)]}>&|<").find(line[after]) != npos ||
                       (quote->backslashes > 0 && IsQuote(line[after]));
    if (isEnd) return {valueBegin, closing};
    return Trimmed(line, {valueBegin, FindWordEnd(line, after, true)});
  }
  if (bare == Bare::ToLineEnd) return Trimmed(line, {begin, line.size()});
  std::size_t const end = std::max(FindWordEnd(line, begin, false), FindBracketEnd(line, begin));
  return Trimmed(line, {begin, end});
}

template <std::size_t size>
bool IsOneOf(std::array<std::string_view, size> const& words, std::string_view text) {
  return std::ranges::any_of(
      words, [&](std::string_view word) { return Base::EqualsIgnoringCase(word, text); });
}

bool SaysNothing(std::string_view value) {
  constexpr std::array<std::string_view, 28> words = {
      "yes",     "no",   "true",  "false",    "on",       "off",           "none",
      "(none)",  "null", "(null", "nil",      "unset",    "[not set",      "not set",
      "n/a",     "0",    "1",     "infinity", "required", "not specified", "unknown",
      "expired", "(yes", "(no",   "-",        "missing",  "invalid",       "disabled"};
  value = Base::TrimWhiteSpace(value);
  return value.find_first_not_of('*') == npos || IsOneOf(words, value);
}

void AddValue(std::string_view line, Span value, std::vector<Span>& spans) {
  if (value.begin < value.end && !SaysNothing(line.substr(value.begin, value.end - value.begin)))
    spans.push_back(value);
}

std::string_view TextOf(std::string_view line, Span span) {
  return line.substr(span.begin, span.end - span.begin);
}

}  // namespace

void RefineWord(std::string_view line, Span key, std::vector<Span>& spans) {
  AddValue(line, FindValue(line, key, Bare::ToSpace), spans);
}

void RefinePhrase(std::string_view line, Span key, std::vector<Span>& spans) {
  AddValue(line, FindValue(line, key, Bare::ToLineEnd), spans);
}

void RefineSentence(std::string_view line, Span key, std::vector<Span>& spans) {
  constexpr std::array<std::string_view, 49> functionWords = {"authentication",
                                                              "prompt",
                                                              "verification",
                                                              "failed",
                                                              "ok",
                                                              "a",
                                                              "an",
                                                              "the",
                                                              "not",
                                                              "no",
                                                              "too",
                                                              "set",
                                                              "being",
                                                              "now",
                                                              "needed",
                                                              "required",
                                                              "missing",
                                                              "expired",
                                                              "incorrect",
                                                              "invalid",
                                                              "empty",
                                                              "used",
                                                              "stored",
                                                              "checked",
                                                              "to",
                                                              "in",
                                                              "about",
                                                              "only",
                                                              "never",
                                                              "asked",
                                                              "sent",
                                                              "unknown",
                                                              "optional",
                                                              "must",
                                                              "wrong",
                                                              "for",
                                                              "has",
                                                              "disabled",
                                                              "enabled",
                                                              "changed",
                                                              "unchanged",
                                                              "hidden",
                                                              "at",
                                                              "of",
                                                              "or",
                                                              "valid",
                                                              "and",
                                                              "on",
                                                              "still"};
  Span const value = FindValue(line, key, Bare::ToLineEnd);
  std::string_view const text = TextOf(line, value);
  std::size_t const end = std::min(text.find_first_of(" \t,.;:!?"), text.size());
  bool const isProse = IsOneOf(functionWords, text.substr(0, end)) || text == "correct";
  if (!isProse) AddValue(line, value, spans);
}

void RefineLogin(std::string_view line, Span key, std::vector<Span>& spans) {
  Span const value = FindValue(line, key, Bare::ToSpace);
  std::string_view const text = TextOf(line, value);
  std::size_t const separator = text.find_first_of(":%");
  if (separator != npos && separator > 0 && separator + 1 < text.size())
    AddValue(line, value, spans);
}

void RefinePwd(std::string_view line, Span key, std::vector<Span>& spans) {
  std::size_t const begin = FindWordBegin(line, key.begin);
  std::string_view const word = line.substr(begin, key.begin - begin);
  bool const isFolder = word.empty() || word == "OLD";
  Span const value = FindValue(line, key, Bare::ToLineEnd);
  if (!isFolder || !TextOf(line, value).starts_with("/")) AddValue(line, value, spans);
}

void RefineElement(std::string_view line, Span key, std::vector<Span>& spans) {
  AddValue(line, {key.end, std::min(line.find("</", key.end), line.size())}, spans);
}

void RefineMachineNumber(std::string_view line, Span key, std::vector<Span>& spans) {
  // What a machine has in place of a number.
  constexpr std::array<std::string_view, 12> placeholders = {
      "not specified",  "not available",        "not applicable",         "not present",
      "default string", "system serial number", "to be filled by o.e.m.", "o.e.m.",
      "asset tag",      "not settable",         "no asset tag",           "not found"};
  bool const isAssignment = TextOf(line, key).find('=') != npos;
  Span const value = FindValue(line, key, isAssignment ? Bare::ToSpace : Bare::ToLineEnd);
  if (!IsOneOf(placeholders, TextOf(line, value))) AddValue(line, value, spans);
}

}  // namespace Support
