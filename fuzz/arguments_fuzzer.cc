#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "utilities/arguments/arguments.h"

// The store accepts any command line, keeps every word of it, and no getter throws. Input: the
// words, separated by zero bytes.

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::vector<std::string> words(1);
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      words.emplace_back();
    } else {
      words.back().push_back(static_cast<char>(data[i]));
    }
  }
  std::vector<char const*> argv;
  for (std::string const& word : words) argv.push_back(word.c_str());
  ParseArguments(static_cast<int>(argv.size()), argv.data());
  if (GetArgumentCountAfterCommandLine() != words.size()) __builtin_trap();
  for (std::size_t i = 0; i < words.size(); ++i) {
    Argument const& argument = GetArguments()[i];
    if (argument.text != words[i]) __builtin_trap();
    GetArgument(argument.name, "");
    GetBoolArgument(argument.name, false);
    if (GetInt64Argument(argument.name) && argument.name.empty()) __builtin_trap();
  }
  return 0;
}
