#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Support {

// Replaces what identifies a machine or a person, and what gives access, by placeholders such as
// "<email-1>", so that a text can be given to somebody else.
//
// Every rule has a name. A placeholder is the name of the rule and a number. During the life of one
// Redactor the same value gets the same placeholder, whichever rule finds it, so that a reader can
// still hold lines against each other. Case is ignored for values that ignore case themselves, such
// as addresses and secrets. After 100000 different values a new one becomes "<NAME-other>".
//
// Built-in rules:
//   pem             PEM blocks, from BEGIN to END, over lines or in one line
//   serial-number   serial numbers and asset tags of the machine, serial numbers of certificates,
//                   in the output of tools, in JSON and in the trace
//   command-output  what other commands printed, in the trace
//   hex-dump        bytes in hexadecimal, in the trace
//   certificate     subjects and issuers, distinguished names
//   fingerprint     thumbprints, fingerprints, 40 and more hexadecimal digits
//   url-login       the user name and password of a URL
//   url-value       the values of a URL's query
//   url-path        random parts of a URL's path, and all behind "hooks" and similar words
//   token           passwords, tokens, keys: a value in quotes whole, another one to the next white
//                   space, and a password without quotes to the end of the line
//   email, ipv4, ipv6, mac
//   uuid            also 32 hexadecimal digits, such as the machine ID
//   user            the name of the user in /home/NAME and other folders, and beside words of logs
//
// The rules prefer too much over too little. Times, numbers of processes, versions and paths of the
// system stay. So do "127.0.0.1", "0.0.0.0", "::1" and "::", which all machines have.
// "version 1.2.3.4" is no address if its first number has one or two digits and is not 10.
//
// A text is redacted line by line; see RedactingStream (support/redacting_stream.h), which takes a
// text in pieces. All rules look at the original line. Where two of their matches overlap, one
// placeholder replaces both, named by the longer match. A placeholder that this Redactor wrote is
// no value: it stays when a redacted text is redacted again.
//
// Time:    linear in the length of the text for the built-in rules. Memory: bounded.
// Bytes:   any. Expressions see bytes, so "." is one byte, and invalid UTF-8 does no harm.
// Threads: any, one at a time, streams included.
class Redactor {
 public:
  // Replaces what `pattern` matches in a line: the first of its capturing groups that took part in
  // the match, else the whole match. The syntax is that of RE2. A value of no bytes is ignored.
  struct Rule {
    std::string name;  // 1 to 32 lower-case letters, digits and hyphens, a letter first
    std::string pattern;
  };

  struct Options {
    std::size_t maxLineLength = std::size_t{1} << 20U;  // bytes, without the line feed
  };

  Redactor();
  explicit Redactor(Options options);
  ~Redactor();

  Redactor(Redactor const&) = delete;
  Redactor& operator=(Redactor const&) = delete;

  // Adds a rule. Rules may share a name, also with a built-in rule; then they share the count.
  // Throws Support::Error "redaction-rule-invalid" with the fields "rule" and "reason".
  void AddRule(Rule const& rule);

  // Adds the rules of a file with lines of the form "NAME EXPRESSION". Blank lines and lines that
  // begin with "#" are skipped; white space around the expression does not count.
  // Adds all rules or none. Throws Support::Error: "redaction-rules-unreadable" with the fields
  // "path" and "reason", also for a file of more than 1 MiB, and "redaction-rule-invalid" with the
  // fields "path", "line", "rule" and "reason".
  void AddRulesFromFile(std::string const& path);

  // Replaces `value` wherever it stands as a whole word, as it is, in a URL's percent-encoding, or
  // with escapes such as those of JSON and of systemd's unit names; the case of ASCII letters is
  // ignored. Words consist of ASCII letters and digits: in "web-1_old" the secret "web-1" is a
  // whole word. Each line of a value is a secret of its own.
  //
  // Returns false when the redactor already has 100000 secrets and did not take this one.
  //
  // White space around a secret does not count. A secret of fewer than 3 bytes is ignored, because
  // it would match everywhere. Do not add common words, such as "root".
  // Throws Support::Error "redaction-rule-invalid" for a name that is none.
  bool AddSecret(std::string const& ruleName, std::string const& value);

  // Returns a whole text, redacted as a stream of this text alone.
  std::string Redact(std::string_view text);

  // How many placeholders each rule wrote: all rules, also those that wrote none.
  std::map<std::string, std::size_t> GetCounts() const;

 private:
  friend class RedactingStream;
  class Implementation;

  // A part of a line that is a PEM block.
  struct Block {
    std::size_t begin;
    std::size_t end;
    std::string value;
  };

  std::size_t GetMaxLineLength() const;
  void AppendRedacted(std::string_view line, std::vector<Block> const& blocks, std::string& out);
  void AppendPlaceholder(std::string const& ruleName, std::string_view value, std::string& out);

  std::unique_ptr<Implementation> _implementation;
};

}  // namespace Support
