#pragma once

#include <string>
#include <string_view>
#include <vector>

// The parts of `text` between the separators. A separator at the end begins no further part.
std::vector<std::string> Split(std::string_view text, char separator = '\n');

// The words of a line. White space separates them; quotes and backslashes protect it, as in a
// shell.
std::vector<std::string> SplitWords(std::string_view line);

// The assignments of an environment file, see systemd.exec(5), one a line: a backslash at the end
// of a line continues it, and so does the quote of a value that is still open. Comments are among
// them.
std::vector<std::string> SplitAssignments(std::string_view text);

// The text of a unit file in which a line that ends with a backslash and the next one are one line.
std::string JoinContinuedLines(std::string_view text);

// Removes the end of a PEM block whose begin the text no longer has, with what precedes it.
void CutOpenBlock(std::string& text);

// Removes what precedes the first line that begins with `form`, in which "0" stands for any digit:
// a text of which only the end was read begins somewhere in a record, perhaps in a value. The first
// line is removed even if it has the form. Removes all when no line is left.
void CutToRecord(std::string& text, std::string_view form);
