#include "client/text.h"

#include <algorithm>
#include <cstddef>

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

void CutToRecord(std::string& text, std::string_view form) {
  std::size_t start = 0;
  while (start < text.size()) {
    start = std::min(text.find('\n', start), text.size() - 1) + 1;
    if (HasForm(std::string_view(text).substr(start), form)) break;
  }
  text.erase(0, start);
}
