#pragma once

#include <map>
#include <string>
#include <string_view>

// The properties of an ini file, in memory.
//
//   [section]     a line with a "[" and a "]" after it opens a section; its name is the text from
//                 the first "[" to the first "]", whatever else is in the line
//   key=value     any other line with a "=": both texts as they are, without the line feed
//
// All other lines are ignored. Nothing is a comment, quoted or trimmed; a "\r" before the line feed
// is part of the value. What stands before the first section is in the section "". Of properties
// with one name the last counts, also when their section is opened again.
class IniReader {
 public:
  // Reads the whole file. Throws Exception "Failed to open ini file" or "Bad ini file".
  explicit IniReader(std::string const& filename);

  // Empty when there is no such property.
  std::string GetValue(std::string_view section, std::string_view key) const;

 private:
  using Properties = std::map<std::string, std::string, std::less<>>;

  std::map<std::string, Properties, std::less<>> _sections;
};
