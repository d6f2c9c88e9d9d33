#include "utilities/ini_reader.h"

#include <sstream>

#include "base/exception.h"
#include "trace/trace.h"
#include "utilities/file_bytes.h"

TRACE_MODULE("ini_reader");

IniReader::IniReader(std::string const& filename) {
  std::string text;
  ReadOutcome const outcome = AppendFileBytes(filename, text);
  if (outcome == ReadOutcome::NotOpened) {
    TRACE_VERBOSE("Failed to open ini file", filename);
    throw Base::Exception("Failed to open ini file");
  }
  if (outcome == ReadOutcome::Failed) {
    TRACE_VERBOSE("Bad ini file", filename);
    throw Base::Exception("Bad ini file");
  }
  std::istringstream lines(text);
  Properties* properties = &_sections[""];
  std::string line;
  while (std::getline(lines, line)) {
    auto const opening = line.find('[');
    auto const closing = line.find(']');
    auto const equals = line.find('=');
    if (closing != std::string::npos && opening < closing) {
      properties = &_sections[line.substr(opening + 1, closing - opening - 1)];
    } else if (equals != std::string::npos) {
      (*properties)[line.substr(0, equals)] = line.substr(equals + 1);
    }
  }
}

std::string IniReader::GetValue(std::string_view section, std::string_view key) const {
  auto const properties = _sections.find(section);
  if (properties == _sections.end()) return {};
  auto const property = properties->second.find(key);
  return property == properties->second.end() ? std::string() : property->second;
}
