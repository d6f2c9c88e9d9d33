#include "support/redactor.h"

#include <re2/re2.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>

#include "base/exception.h"
#include "base/text.h"
#include "support/error.h"
#include "support/file_manager.h"
#include "support/redacting_stream.h"
#include "support/redaction_rules.h"
#include "support/secret_finder.h"

// A line goes through three steps:
//
//   find     Every rule and every secret looks for its values in the original line. No rule sees
//            what another one has replaced, so a placeholder is never replaced again, and the order
//            of the rules decides only which name a value gets.
//   merge    Values that overlap become one: its text is that of all of them.
//   replace  The value gets its placeholder, from the table of all values so far.
//
// The built-in rules are in groups, and an expression for each group says first whether the line
// can hold any of its values. One RE2::Set for all rules would do the same, but in text that is not
// as uniform as a trace it builds states all the time, a hundred times slower.
//
// RE2 takes time linear in the line for one search. The search for the next value must not begin
// far before the end of the last match: a long value or context would be read again and again, and
// the time would be quadratic.

namespace Support {

namespace {

constexpr std::size_t maxRulesFileSize = std::size_t{1} << 20U;
constexpr std::size_t maxNameLength = 32;
constexpr std::size_t maxValues = 100'000;
constexpr std::size_t maxTableKeyLength = 64;
constexpr std::size_t maxOverlap = 40;  // of two matches of a rule

re2::StringPiece ToPiece(std::string_view text) { return {text.data(), text.size()}; }

RE2::Options MakeOptions() {
  RE2::Options options(RE2::Latin1);
  options.set_log_errors(false);
  return options;
}

Error InvalidRule(std::string const& name, std::string const& reason) {
  return Error("redaction-rule-invalid",
               "The redaction rule \"" + name + "\" is invalid: " + reason, "Correct the rule.")
      .With("rule", name)
      .With("reason", reason);
}

void CheckName(std::string const& name) {
  bool const isValid = !name.empty() && name.size() <= maxNameLength && name[0] >= 'a' &&
                       name[0] <= 'z' && std::ranges::all_of(name, [](char c) {
                         return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
                       });
  if (!isValid) {
    throw InvalidRule(name,
                      "a name is 1 to 32 lower-case letters, digits and hyphens, a letter first");
  }
}

struct CompiledRule {
  std::size_t name = 0;
  std::size_t priority = 0;  // that of Found
  std::unique_ptr<RE2> expression;
  bool ignoresCase = false;
  decltype(BuiltInRule::refine) refine = nullptr;
  bool mayEndInKey = false;  // in 'password:"token":"x"' the first value is the key of another one
};

struct Group {
  std::unique_ptr<RE2> hint;  // null: none, all lines are searched
  std::vector<CompiledRule> rules;
};

std::unique_ptr<RE2> Compile(Redactor::Rule const& rule) {
  CheckName(rule.name);
  auto expression = std::make_unique<RE2>(ToPiece(rule.pattern), MakeOptions());
  if (!expression->ok()) throw InvalidRule(rule.name, expression->error());
  if (rule.pattern.empty()) throw InvalidRule(rule.name, "the expression is missing");
  return expression;
}

// Something to replace in a line.
struct Found {
  std::size_t begin;
  std::size_t end;
  std::size_t priority;  // lower names the value when two matches are equal
  std::size_t name;
  bool ignoresCase;
  std::string const* value;  // null: the text itself
};

// A short key for a value of any length.
std::string KeyOf(std::string_view value) {
  if (value.size() <= maxTableKeyLength) return std::string(value);
  return std::to_string(std::hash<std::string_view>()(value)) + ":" + std::to_string(value.size()) +
         ":" + std::string(value.substr(0, maxTableKeyLength / 2));
}

}  // namespace

class Redactor::Implementation {
 public:
  explicit Implementation(Options options) : _options(options) {
    GetName(pemRule);
    for (RuleGroup const& group : GetBuiltInRules()) {
      _groups.push_back({std::make_unique<RE2>(ToPiece(group.hint), MakeOptions()), {}});
      for (BuiltInRule const& rule : group.rules) {
        Add(Compile({rule.name, rule.pattern}), rule.name, rule.ignoresCase, rule.refine,
            rule.refine == nullptr);
      }
    }
    _groups.push_back({});
    _urlLogin = GetName(urlLoginRule);
    _email = GetName(emailRule);
  }

  // Adds a rule to the last group.
  void Add(std::unique_ptr<RE2> expression, std::string const& name, bool ignoresCase = false,
           decltype(BuiltInRule::refine) refine = nullptr, bool mayEndInKey = false) {
    auto const groupCount = static_cast<std::size_t>(expression->NumberOfCapturingGroups()) + 1;
    _submatches.resize(std::max(_submatches.size(), groupCount));
    _groups.back().rules.push_back(
        {GetName(name), ++_ruleCount, std::move(expression), ignoresCase, refine, mayEndInKey});
  }

  bool AddSecret(std::string const& name, std::string_view value) {
    return _secrets.Add(GetName(name), value);
  }

  void AppendRedacted(std::string_view line, std::vector<Block> const& blocks, std::string& out) {
    Find(line, blocks);
    std::size_t done = 0;
    for (Found const& found : _merged) {
      out.append(line.substr(done, found.begin - done));
      std::string_view const text = line.substr(found.begin, found.end - found.begin);
      AppendPlaceholder(found.name, found.value == nullptr ? text : *found.value, found.ignoresCase,
                        out);
      done = found.end;
    }
    out.append(line.substr(done));
  }

  void AppendPlaceholder(std::string const& name, std::string_view value, std::string& out) {
    if (IsPlaceholder(value)) {
      out.append(value);
    } else {
      AppendPlaceholder(GetName(name), value, false, out);
    }
  }

  std::map<std::string, std::size_t> GetCounts() const {
    std::map<std::string, std::size_t> counts;
    for (Name const& name : _names) counts[name.text] = name.count;
    return counts;
  }

  // Makes the name known.
  std::size_t GetName(std::string const& text) {
    auto const [place, isNew] = _nameIndexes.emplace(text, _names.size());
    if (isNew) _names.push_back({text});
    return place->second;
  }

  Options const& GetOptions() const { return _options; }

 private:
  struct Name {
    std::string text;
    std::size_t count = 0;   // placeholders written
    std::size_t values = 0;  // different values, the number of the last one
  };

  void Find(std::string_view line, std::vector<Block> const& blocks) {
    _found.clear();
    for (Block const& block : blocks)
      _found.push_back({block.begin, block.end, 0, GetName(pemRule), false, &block.value});
    _secrets.Find(line, [&](Span span, SecretFinder::Secret const& secret) {
      _found.push_back({span.begin, span.end, 0, secret.name, true, &secret.value});
    });
    for (Group const& group : _groups) {
      if (group.hint != nullptr && !RE2::PartialMatch(ToPiece(line), *group.hint)) continue;
      for (CompiledRule const& rule : group.rules) FindRule(rule, line);
    }
    Merge(line);
  }

  void FindRule(CompiledRule const& rule, std::string_view line) {
    int const groupCount = rule.expression->NumberOfCapturingGroups() + 1;
    std::size_t start = 0;
    while (start < line.size() &&
           rule.expression->Match(ToPiece(line), start, line.size(), RE2::UNANCHORED,
                                  _submatches.data(), groupCount)) {
      auto end =
          static_cast<std::size_t>(_submatches[0].data() - line.data()) + _submatches[0].size();
      Span const value = GetValue(line, groupCount);
      if (value.begin < value.end) {
        _spans.clear();
        if (rule.refine != nullptr) {
          rule.refine(line, value, _spans);
        } else {
          _spans.push_back(value);
        }
        for (Span const& span : _spans) {
          _found.push_back(
              {span.begin, span.end, rule.priority, rule.name, rule.ignoresCase, nullptr});
          end = std::max(end, span.end);
        }
      }
      std::size_t const next = rule.mayEndInKey ? value.begin : value.end;
      start = std::max({next, end - std::min(end, maxOverlap), start + 1});
    }
  }

  // The part of the last match that is to be replaced.
  Span GetValue(std::string_view line, int groupCount) const {
    auto const* value = &_submatches[0];
    for (int index = groupCount - 1; index > 0; --index) {
      auto const& group = _submatches[static_cast<std::size_t>(index)];
      if (group.data() != nullptr) value = &group;
    }
    auto const begin = static_cast<std::size_t>(value->data() - line.data());
    return {begin, begin + value->size()};
  }

  void Merge(std::string_view line) {
    std::erase_if(_found, [&](Found const& found) {
      return IsPlaceholder(line.substr(found.begin, found.end - found.begin));
    });
    DropHostsOfLogins();
    std::ranges::sort(_found, [](Found const& a, Found const& b) {
      if (a.begin != b.begin) return a.begin < b.begin;
      return a.end != b.end ? a.end > b.end : a.priority < b.priority;
    });
    _merged.clear();
    for (Found const& found : _found) {
      if (_merged.empty() || found.begin >= _merged.back().end) {
        _merged.push_back(found);
        continue;
      }
      Found& last = _merged.back();
      if (found.end <= last.end) continue;
      if (found.end - found.begin > last.end - last.begin) last.name = found.name;
      last.end = found.end;
      last.value = nullptr;
    }
  }

  // "anna@web.test" in "ftp://anna@web.test" is no e-mail address: the host is to stay.
  void DropHostsOfLogins() {
    _loginEnds.clear();
    for (Found const& found : _found)
      if (found.name == _urlLogin) _loginEnds.push_back(found.end);
    if (_loginEnds.empty()) return;
    std::ranges::sort(_loginEnds);
    std::erase_if(_found, [&](Found const& found) {
      auto const end = std::ranges::upper_bound(_loginEnds, found.begin);
      return found.name == _email && end != _loginEnds.end() && *end < found.end;
    });
  }

  // Whether this redactor has written the text.
  bool IsPlaceholder(std::string_view text) const {
    auto const hyphen = text.rfind('-');
    if (hyphen == std::string_view::npos || text.front() != '<' || text.back() != '>') return false;
    auto const name = _nameIndexes.find(std::string(text.substr(1, hyphen - 1)));
    if (name == _nameIndexes.end()) return false;
    std::string_view const number = text.substr(hyphen + 1, text.size() - hyphen - 2);
    auto const parsed = Base::ParseNumber<std::size_t>(number);
    return parsed ? parsed.Get() >= 1 && parsed.Get() <= _names[name->second].values
                  : number == otherValues && _values.size() >= maxValues;
  }

  void AppendPlaceholder(std::size_t nameIndex, std::string_view value, bool ignoresCase,
                         std::string& out) {
    Name& name = _names[nameIndex];
    ++name.count;
    out.append(GetPlaceholder(name, value, ignoresCase));
  }

  // Values are in the table under their own text and, if their kind ignores case, in lower case.
  std::string GetPlaceholder(Name& name, std::string_view value, bool ignoresCase) {
    std::string exactKey = "=" + KeyOf(value);
    auto known = _values.find(exactKey);
    if (known != _values.end()) return known->second;
    std::string foldedKey = ignoresCase ? "~" + KeyOf(Base::LowerCased(value)) : "";
    if (ignoresCase) {
      known = _values.find(foldedKey);
      if (known != _values.end()) {
        std::string placeholder = known->second;
        if (_values.size() < maxValues) _values.emplace(std::move(exactKey), placeholder);
        return placeholder;
      }
    }
    std::string const prefix = "<" + name.text + "-";
    if (_values.size() >= maxValues) return prefix + otherValues + ">";
    std::string placeholder = prefix + std::to_string(++name.values) + ">";
    _values.emplace(std::move(exactKey), placeholder);
    if (ignoresCase) _values.emplace(std::move(foldedKey), placeholder);
    return placeholder;
  }

  static constexpr char const* otherValues = "other";

  Options const _options;
  std::size_t _urlLogin = 0;
  std::size_t _email = 0;
  std::vector<Group> _groups;  // the last one for the rules of the user
  std::size_t _ruleCount = 0;
  SecretFinder _secrets;
  std::vector<Name> _names;
  std::unordered_map<std::string, std::size_t> _nameIndexes;
  std::unordered_map<std::string, std::string> _values;

  // Of the line at hand; kept so that a line allocates little.
  std::vector<re2::StringPiece> _submatches;
  std::vector<Span> _spans;
  std::vector<Found> _found;
  std::vector<Found> _merged;
  std::vector<std::size_t> _loginEnds;
};

Redactor::Redactor() : Redactor(Options{}) {}
Redactor::Redactor(Options options) : _implementation(std::make_unique<Implementation>(options)) {}
Redactor::~Redactor() = default;

void Redactor::AddRule(Rule const& rule) { _implementation->Add(Compile(rule), rule.name); }

void Redactor::AddRulesFromFile(std::string const& path) {
  auto const unreadable = [&](std::string const& reason) {
    return Error("redaction-rules-unreadable",
                 "Cannot read the redaction rules in " + path + ": " + reason)
        .With("path", path)
        .With("reason", reason);
  };
  auto const atLine = [&](Error const& error, int number, std::string const& name) {
    return Error(error.GetCode(), path + ", line " + std::to_string(number) + ": " + error.what(),
                 error.GetAdvice())
        .With("path", path)
        .With("line", number)
        .With("rule", name)
        .With("reason", error.GetFields().at("reason"));
  };
  std::istringstream file;
  try {
    file.str(FileManager::ReadFile(path, maxRulesFileSize));
  } catch (Error const& error) {
    throw unreadable(error.what());
  }
  std::vector<std::pair<std::string, std::unique_ptr<RE2>>> rules;
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    std::string_view const text = Base::TrimWhiteSpace(line);
    if (text.empty() || text.front() == '#') continue;
    auto const nameEnd = text.find_first_of(Base::whiteSpace);
    std::string const name(text.substr(0, nameEnd));
    std::string const pattern(
        nameEnd == std::string_view::npos ? "" : Base::TrimWhiteSpace(text.substr(nameEnd)));
    try {
      rules.emplace_back(name, Compile({name, pattern}));
    } catch (Error const& error) {
      throw atLine(error, number, name);
    }
  }
  for (auto& [name, expression] : rules) _implementation->Add(std::move(expression), name);
}

bool Redactor::AddSecret(std::string const& ruleName, std::string const& value) {
  CheckName(ruleName);
  _implementation->GetName(ruleName);
  bool isKnown = true;
  std::string_view rest = value;
  while (!rest.empty()) {
    auto const end = std::min(rest.find('\n'), rest.size());
    std::string_view const secret = Base::TrimWhiteSpace(rest.substr(0, end));
    isKnown = isKnown && (secret.size() < SecretFinder::minLength ||
                          _implementation->AddSecret(ruleName, secret));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return isKnown;
}

std::string Redactor::Redact(std::string_view text) {
  std::string redacted;
  RedactingStream stream(*this, [&](std::string_view piece) { redacted.append(piece); });
  stream.Write(text);
  stream.Finish();
  return redacted;
}

std::map<std::string, std::size_t> Redactor::GetCounts() const {
  return _implementation->GetCounts();
}

std::size_t Redactor::GetMaxLineLength() const {
  return _implementation->GetOptions().maxLineLength;
}

void Redactor::AppendRedacted(std::string_view line, std::vector<Block> const& blocks,
                              std::string& out) {
  _implementation->AppendRedacted(line, blocks, out);
}

void Redactor::AppendPlaceholder(std::string const& ruleName, std::string_view value,
                                 std::string& out) {
  _implementation->AppendPlaceholder(ruleName, value, out);
}

}  // namespace Support
