#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// What the client prints.

enum class ExitStatus : int { Success = 0, OtherStatus = 1, WrongUsage = 2, NoResponse = 3 };

// Returns `text` with each control that a terminal would obey replaced by its escape sequence in
// JSON: DEL, the C1 controls, line and paragraph separators, and the bidirectional controls, which
// show a text in another order. Leaves the other ASCII controls alone: JSON has none inside a text.
std::string EscapeControls(std::string_view text);

// The same as one line: each ASCII control becomes a space.
std::string EscapeToOneLine(std::string text);

// Prints one line on standard error and returns the number of `status`. `reason` can hold text of
// the user or of the server: its control characters do not reach the terminal.
int ExitWithError(ExitStatus status, std::string reason);

// Prints `text` on standard output. Returns 0, or the status after an error.
int Print(std::string_view text);

// Whether `fd` is a terminal that obeys controls: TERM is not "dumb".
bool IsTerminal(int fd);

// A line on standard error, if that is such a terminal, which each call replaces, with a mark that
// moves. Its end erases it.
class ProgressLine {
 public:
  ProgressLine();
  ProgressLine(ProgressLine const&) = delete;
  ProgressLine& operator=(ProgressLine const&) = delete;
  ~ProgressLine();

  void Show(std::string_view text);

 private:
  bool const _isShown;
  std::size_t _count = 0;
};
