#include "base/exception.h"

#include <array>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/text.h"

namespace Base {

Exception::Exception(std::string message) : _message(std::move(message)) {}

char const* Exception::what() const noexcept { return _message.c_str(); }

OverflowException::OverflowException() : Exception("Overflow") {}

ExceptionPosix::ExceptionPosix(int errorCode)
    : Exception(std::string()), _description(ErrnoText(errorCode)), _errorCode(errorCode) {}

ExceptionPosix::ExceptionPosix(std::string const& text, int errorCode)
    : Exception(std::string()),
      _description(text + " - " + ErrnoText(errorCode)),
      _errorCode(errorCode) {}

char const* ExceptionPosix::what() const noexcept { return _description.c_str(); }

std::string ErrnoText(int code) {
  std::array<char, 256> buffer{};
  // The GNU form: the text may lie in `buffer` or be a constant of the library.
  char const* const text = strerror_r(code, buffer.data(), buffer.size());
  if (text == nullptr) return "Err " + std::to_string(code);
  return std::string(TrimWhiteSpace(text)) + " (Err " + std::to_string(code) + ")";
}

}  // namespace Base
