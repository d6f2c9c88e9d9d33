#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "support/redaction_rules.h"

namespace Support {

// Where the value after a key ends. `key` is the key with all that stands before its value:
// 'password":' in '{"password":"x"}'. Values that say nothing, such as "no", are not replaced.
//
//   quoted     "x y", \"x y\", 'x y': up to the closing quote. What follows without white space
//              belongs to the value, as in a shell.
//   key, too   "KEY=x y": up to the closing quote. systemd writes variables like that.
//   bare       up to white space, or up to the end of the line.

// A value without quotes ends at white space: TOKEN=x, and token: [x, y].
void RefineWord(std::string_view line, Span key, std::vector<Span>& spans);

// A value without quotes goes on to the end of the line, because a password can be words.
void RefinePhrase(std::string_view line, Span key, std::vector<Span>& spans);

// The same for the words after "password is", which are often no password: "password is required".
void RefineSentence(std::string_view line, Span key, std::vector<Span>& spans);

// A value without quotes ends at white space, and has a ":" or a "%": user:password.
void RefineLogin(std::string_view line, Span key, std::vector<Span>& spans);

// A phrase that is no path: PWD is also the working directory.
void RefinePwd(std::string_view line, Span key, std::vector<Span>& spans);

// Up to the next "</": <password>x</password>.
void RefineElement(std::string_view line, Span key, std::vector<Span>& spans);

// A number of the machine. A phrase after ":", a word after "=". Not "Not Specified".
void RefineMachineNumber(std::string_view line, Span key, std::vector<Span>& spans);

// Between a key and its value. Also 'name="password" value="x"' and
// '{"name":"password","value":"x"}'.
inline constexpr char const* separatorPattern =
    R"((?:(?:\\*["']|\\*(?:u00|x)22|&quot;|&#34;|%22)?[\]}]?\s*(?:[:+?!]?={1,2}>?|:|%3[aAdD])\s*)"
    R"(|\\*["'][\s,;]*(?:\\*["'])?(?i:value)(?:\\*["'])?\s*[:=]\s*))";

}  // namespace Support
