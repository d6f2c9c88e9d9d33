#pragma once

#include <string>
#include <vector>

#include "utilities/arguments/arguments.h"

// Makes `arguments` the command line of this process.
inline void SetArguments(std::vector<std::string> const& arguments) {
  std::vector<char const*> argv{"program"};
  for (std::string const& argument : arguments) argv.push_back(argument.c_str());
  ParseArguments(static_cast<int>(argv.size()), argv.data());
}
