#include "client/text.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "base/text.h"

namespace {

// Whether `text` begins with `form`, in which "0" stands for any digit.
bool HasForm(std::string_view text, std::string_view form) {
  return text.size() >= form.size() &&
         std::ranges::equal(text.substr(0, form.size()), form, [](char c, char wanted) {
           return wanted == '0' ? c >= '0' && c <= '9' : c == wanted;
         });
}

}  // namespace

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    std::size_t const length = std::min(text.find(separator), text.size());
    parts.emplace_back(text.substr(0, length));
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return parts;
}

std::vector<std::string> SplitWords(std::string_view line) {
  std::vector<std::string> words;
  char quote = '\0';
  bool isInWord = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (quote == '\0' && Base::whiteSpace.find(c) != std::string_view::npos) {
      isInWord = false;
      continue;
    }
    if (!isInWord) words.emplace_back();
    isInWord = true;
    if (c == quote) {
      quote = '\0';
    } else if (quote == '\0' && (c == '"' || c == '\'')) {
      quote = c;
    } else {
      if (c == '\\' && quote != '\'' && i + 1 < line.size()) c = line[++i];
      words.back() += c;
    }
  }
  return words;
}

std::vector<std::string> SplitAssignments(std::string_view text) {
  std::vector<std::string> assignments;
  std::string line;
  char quote = '\0';
  bool canOpen = false;  // a quote counts where a value begins, and behind another quoted part
  for (std::size_t i = 0; i < text.size(); ++i) {
    char const c = text[i];
    bool const isEscape = c == '\\' && i + 1 < text.size();
    if (isEscape && text[i + 1] == '\n') {
      ++i;
      continue;
    }
    if (c == '\n' && quote == '\0') {
      assignments.push_back(std::exchange(line, {}));
      canOpen = false;
      continue;
    }
    if (quote != '\0') {
      if (c == quote) quote = '\0';
    } else if (canOpen && (c == '"' || c == '\'')) {
      quote = c;
    } else if (Base::whiteSpace.find(c) == std::string_view::npos) {
      std::string_view const begin = Base::TrimWhiteSpace(line);
      bool const isComment = begin.starts_with('#') || begin.starts_with(';');
      canOpen = c == '=' && !isComment && begin.find('=') == std::string_view::npos;
    }
    line += c;
    if (isEscape) line += text[++i];
  }
  if (!line.empty()) assignments.push_back(line);
  return assignments;
}

std::string JoinContinuedLines(std::string_view text) {
  constexpr std::string_view continued = "\\\n";
  std::string joined;
  for (std::size_t end = text.find(continued); end != std::string_view::npos;
       end = text.find(continued)) {
    joined.append(text.substr(0, end)).append(" ");
    text.remove_prefix(end + continued.size());
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  }
  return joined.append(text);
}

void CutOpenBlock(std::string& text) {
  constexpr std::ptrdiff_t maxLines = 200;  // a longer block is no key or certificate
  std::size_t const end = text.find("-----END ");
  if (end == std::string::npos || text.find("-----BEGIN ") < end) return;
  if (std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), '\n') > maxLines)
    return;
  text.erase(0, std::min(text.find('\n', end), text.size() - 1) + 1);
}

void CutToRecord(std::string& text, std::string_view form) {
  std::size_t start = 0;
  while (start < text.size()) {
    start = std::min(text.find('\n', start), text.size() - 1) + 1;
    if (HasForm(std::string_view(text).substr(start), form)) break;
  }
  text.erase(0, start);
}
