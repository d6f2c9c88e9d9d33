#pragma once

#include <exception>
#include <string>

namespace Base {

// What this system's own code throws, and what the status of an asynchronous operation holds.
// Copyable, thrown by value, caught by reference.
class Exception : public std::exception {
 public:
  // `message` is plain bytes or UTF-8; it may be empty.
  explicit Exception(std::string message);

  // The message, never null.
  char const* what() const noexcept override;

 private:
  std::string _message;
};

// A size or a number that does not fit: always "Overflow".
class OverflowException final : public Exception {
 public:
  OverflowException();
};

// A failed system call. The inherited message stays empty, so a copy as a plain Exception has no
// text: build that one from `what()`.
class ExceptionPosix final : public Exception {
 public:
  // The text is the `ErrnoText` of `errorCode`, a value of errno(3).
  explicit ExceptionPosix(int errorCode);

  // The text is `text`, " - " and the `ErrnoText`. A caller that has no errno passes -1.
  ExceptionPosix(std::string const& text, int errorCode);

  char const* what() const noexcept override;

  int GetErrorCode() const noexcept { return _errorCode; }

 private:
  std::string _description;
  int _errorCode;
};

// The system's text of an errno and the number: "No such file or directory (Err 2)".
//
// Threads: any.
std::string ErrnoText(int code);

}  // namespace Base
