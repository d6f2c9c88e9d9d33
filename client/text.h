#pragma once

#include <string>
#include <string_view>
#include <vector>

// The parts of `text` between the separators. A separator at the end begins no further part.
std::vector<std::string> Split(std::string_view text, char separator = '\n');

// The words of a line. White space separates them; quotes and backslashes protect it, as in a
// shell.
std::vector<std::string> SplitWords(std::string_view line);

// Removes what precedes the first line that begins with `form`, in which "0" stands for any digit:
// a text of which only the end was read begins somewhere in a record, perhaps in a value. The first
// line is removed even if it has the form. Removes all when no line is left.
void CutToRecord(std::string& text, std::string_view form);
