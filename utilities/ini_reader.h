#pragma once

#include <map>
#include <string>
#include <string_view>

// The properties of an ini file, in memory.
//
//   [section]   opens a section: any line whose first "[" stands before its first "]". The name is
//               the text between the two; the rest of the line is ignored.
//   key=value   a property: any other line with a "=". The key ends at the first "=".
//
// All other lines are ignored. There are no comments and no quoting, and nothing is trimmed: a "\r"
// before the line feed belongs to the value. Properties before the first section are in the section
// "". When a key occurs more than once in a section, the last value counts, also when the file
// opens the section again.
class IniReader {
 public:
  // Reads the whole file. Throws Exception "Failed to open ini file" or "Bad ini file".
  explicit IniReader(std::string const& filename);

  // Returns the value, or an empty text when there is no such property.
  std::string GetValue(std::string_view section, std::string_view key) const;

 private:
  using Properties = std::map<std::string, std::string, std::less<>>;

  std::map<std::string, Properties, std::less<>> _sections;
};
