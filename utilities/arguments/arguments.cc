#include "utilities/arguments/arguments.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "base/text.h"

namespace {

constexpr std::string_view environmentPrefix = "KESTREL_";
constexpr std::string_view nameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

class ArgumentStore {
 public:
  void Clear() {
    _arguments.clear();
    _indexes.clear();
  }

  void AddCommandLine(int argc, char const* const* argv) {
    _countBeforeCommandLine = _arguments.size();
    for (int i = 0; i < argc; ++i) AddCommandLineArgument(argv[i]);
    _countAfterCommandLine = _arguments.size();
  }

  void AddEnvironment() {
    if (environ == nullptr) return;
    for (char const* const* variable = environ; *variable != nullptr; ++variable) {
      AddEnvironmentVariable(*variable);
    }
  }

  Argument const* Find(std::string_view name) const {
    auto const found = _indexes.find(NormaliseArgumentName(name));
    return found == _indexes.end() ? nullptr : &_arguments[found->second];
  }

  // The value of a named argument; null for an absent one and for a flag.
  std::string const* FindValue(std::string_view name) const {
    Argument const* const argument = Find(name);
    return argument != nullptr && (argument->kind & argumentNamed) != 0 ? &argument->value
                                                                        : nullptr;
  }

  std::vector<Argument> const& GetArguments() const { return _arguments; }
  std::size_t GetCountBeforeCommandLine() const { return _countBeforeCommandLine; }
  std::size_t GetCountAfterCommandLine() const { return _countAfterCommandLine; }

 private:
  void AddCommandLineArgument(std::string_view text) {
    if (!text.starts_with("--")) {
      Add({argumentFromCommandLine | argumentField, std::string(text), {}, {}});
      return;
    }
    auto const separator = text.find_first_of(":=");
    if (separator == std::string_view::npos) {
      Add({argumentFromCommandLine | argumentFlag,
           std::string(text),
           std::string(text.substr(2)),
           {}});
      return;
    }
    Add({argumentFromCommandLine | argumentNamed, std::string(text),
         std::string(text.substr(2, separator - 2)), std::string(text.substr(separator + 1))});
  }

  void AddEnvironmentVariable(std::string_view text) {
    auto const separator = text.find('=');
    if (!text.starts_with(environmentPrefix) || separator == std::string_view::npos ||
        separator < environmentPrefix.size()) {
      return;
    }
    std::string_view const name =
        text.substr(environmentPrefix.size(), separator - environmentPrefix.size());
    std::string_view const value = text.substr(separator + 1);
    Add({argumentFromEnvironment | (value.empty() ? argumentFlag : argumentNamed),
         std::string(text), NormaliseArgumentName(name), std::string(value)});
  }

  void Add(Argument argument) {
    std::string name = NormaliseArgumentName(argument.name);
    bool const canBeLookedUp =
        !name.empty() && name.find_first_not_of(nameCharacters) == std::string::npos;
    if (canBeLookedUp) _indexes.insert_or_assign(std::move(name), _arguments.size());
    _arguments.push_back(std::move(argument));
  }

  std::vector<Argument> _arguments;
  std::unordered_map<std::string, std::size_t> _indexes;  // by normalised name
  std::size_t _countBeforeCommandLine = 0;
  std::size_t _countAfterCommandLine = 0;
};

// Never destroyed: a thread may still read a setting while the process ends.
ArgumentStore& GetStore() {
  static ArgumentStore& store = *new ArgumentStore;
  return store;
}

template <typename Number>
Base::Maybe<Number> FindNumber(std::string_view name) {
  std::string const* const value = GetStore().FindValue(name);
  if (value == nullptr) return {};
  return Base::ParseNumber<Number>(*value);
}

template <typename Number>
Number GetNumber(std::string_view name, Number defaultValue) {
  auto const number = FindNumber<Number>(name);
  return number ? number.Get() : defaultValue;
}

}  // namespace

void ParseArguments(int argc, char const* const* argv) {
  GetStore().Clear();
  GetStore().AddCommandLine(argc, argv);
  GetStore().AddEnvironment();
}

bool IsWordOfCommandLine(int argc, char const* const* argv, std::string_view word) {
  return std::any_of(argv, argv + argc, [word](char const* text) { return text == word; });
}

std::string NormaliseArgumentName(std::string_view name) {
  std::string normalised = Base::LowerCased(name);
  std::ranges::replace(normalised, '-', '_');
  return normalised;
}

std::vector<Argument> const& GetArguments() { return GetStore().GetArguments(); }

std::size_t GetArgumentCountBeforeCommandLine() { return GetStore().GetCountBeforeCommandLine(); }

std::size_t GetArgumentCountAfterCommandLine() { return GetStore().GetCountAfterCommandLine(); }

bool HasArgument(std::string_view name) { return GetStore().Find(name) != nullptr; }

std::string GetArgument(std::string_view name, std::string_view defaultValue) {
  std::string const* const value = GetStore().FindValue(name);
  return value != nullptr ? *value : std::string(defaultValue);
}

bool GetBoolArgument(std::string_view name, bool defaultValue) {
  Argument const* const argument = GetStore().Find(name);
  if (argument == nullptr) return defaultValue;
  if ((argument->kind & argumentFlag) != 0) return true;
  std::string const value = Base::LowerCased(argument->value);
  if (value == "0" || value == "false") return false;
  if (value == "1" || value == "true") return true;
  return defaultValue;
}

std::int32_t GetIntArgument(std::string_view name, std::int32_t defaultValue) {
  return GetNumber(name, defaultValue);
}

std::uint32_t GetUnsignedArgument(std::string_view name, std::uint32_t defaultValue) {
  return GetNumber(name, defaultValue);
}

Base::Maybe<std::int64_t> GetInt64Argument(std::string_view name) {
  return FindNumber<std::int64_t>(name);
}
