#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Support {

// A part of a line.
struct Span {
  std::size_t begin;
  std::size_t end;
};

// A built-in rule of the redactor. Several have the same name.
struct BuiltInRule {
  std::string name;
  std::string pattern;       // as of Redactor::Rule
  bool ignoresCase = false;  // whether values that differ in case are the same value

  // Appends the parts of `line` that are to be replaced, in `found` or behind it. Null: `found`.
  void (*refine)(std::string_view line, Span found, std::vector<Span>& spans) = nullptr;
};

// Rules that are tried together. A line that does not match the hint matches none of them: one
// search in place of many, because most lines hold nothing to replace.
struct RuleGroup {
  std::string hint;
  std::vector<BuiltInRule> rules;
};

std::vector<RuleGroup> GetBuiltInRules();

// Passwords, tokens and keys. A word before it shows most of them; some have a known form.
std::vector<BuiltInRule> GetTokenRules();
std::vector<BuiltInRule> GetTokenFormRules();

// A random text, no word, name or path: it has digits, or a quarter of it is upper-case.
void RefineRun(std::string_view line, Span found, std::vector<Span>& spans);

// Rules that are more than an expression on a line.
inline constexpr char const* pemRule = "pem";
inline constexpr char const* serialNumberRule = "serial-number";
inline constexpr char const* commandOutputRule = "command-output";
inline constexpr char const* urlLoginRule = "url-login";
inline constexpr char const* emailRule = "email";

// What stands before a word: an escape, another character than letters and digits, or nothing. The
// escapes come first, because the first alternative that fits decides where the word begins.
inline constexpr char const* wordStartPattern =
    R"((?:\\[abfnrtv0]|%[0-9A-Fa-f]{2}|(?:\x1b|\\u001[bB]|\\x1[bB]|#033)\[[0-9;]*[A-Za-z])"
    R"(|\\u[0-9A-Fa-f]{4}|\\x[0-9A-Fa-f]{2}|[^0-9A-Za-z]|^))";

// The header and the first two words of a trace line, wherever it begins. Text in a PEM block never
// looks like that.
inline constexpr char const* traceLinePattern =
    R"(\d\d:\d\d:\d\d\.\d{3}Z (?:FATAL|ERROR|WARNING|INFO|VERBOSE|DEBUG) +)"
    R"([A-Za-z0-9_/]+\(\d+:\d+\) - [A-Za-z]+ [A-Za-z{])";

}  // namespace Support
