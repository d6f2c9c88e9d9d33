#include "client/output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <utility>

#include "base/string_conversion.h"

namespace {

bool IsControl(wchar_t c) {
  return (c >= 0x7F && c <= 0x9F) || c == 0x61C || c == 0x200E || c == 0x200F ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

}  // namespace

std::string EscapeControls(std::string_view text) {
  std::wstring escaped;
  for (wchar_t const c : Base::ToWide(text)) {
    if (!IsControl(c)) {
      escaped += c;
      continue;
    }
    constexpr std::wstring_view digits = L"0123456789abcdef";
    escaped += L"\\u";
    for (int shift = 12; shift >= 0; shift -= 4) escaped += digits[(c >> shift) & 0xF];
  }
  return Base::ToUtf8(escaped);
}

std::string EscapeToOneLine(std::string text) {
  std::ranges::replace_if(
      text, [](char c) { return static_cast<unsigned char>(c) < ' '; }, ' ');
  return EscapeControls(text);
}

int ExitWithError(ExitStatus status, std::string reason) {
  std::cerr << "ktclientctl: " + EscapeToOneLine(std::move(reason)) + "\n";
  return static_cast<int>(status);
}

int Print(std::string_view text) {
  std::cout << text << std::flush;
  return std::cout ? 0 : ExitWithError(ExitStatus::NoResponse, "Cannot print");
}

bool IsTerminal(int fd) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
  char const* const type = std::getenv("TERM");
  return isatty(fd) == 1 && (type == nullptr || std::string_view(type) != "dumb");
}

ProgressLine::ProgressLine() : _isShown(IsTerminal(STDERR_FILENO)) {}

ProgressLine::~ProgressLine() {
  if (_isShown) std::cerr << "\r\x1b[K" << std::flush;
}

void ProgressLine::Show(std::string_view text) {
  constexpr std::string_view frames = "|/-\\";
  if (!_isShown) return;
  std::cerr << "\r" << frames[_count++ % frames.size()] << " " << text << "\x1b[K" << std::flush;
}
