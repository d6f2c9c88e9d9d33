#include "support/redaction_rules.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>

#include "base/text.h"

// The expressions see one line as bytes. Each one describes its value and what stands around it;
// the value is a group. What stands behind the value is described in few bytes, because the next
// match may share at most 40 bytes with this one.
//
// The same fact reaches a bundle in several forms: plain; as a value of JSON; as a value of JSON
// that is text in another JSON value, so that each quote has a backslash, or three; in the trace,
// which escapes nothing; in a URL, with percent signs. A word is therefore not what `\b` says: the
// "n" of a line feed in JSON, the digits of "%20" and the "m" of a colour escape end a word, too.
//
// What an expression cannot say, a function decides: whether groups of digits are an address,
// whether a long run of letters is random.

namespace Support {

namespace {

// What may stand before and behind a word.
std::string const before = wordStartPattern;
std::string const after = R"((?:[^0-9A-Za-z]|$))";

// A value after one of the keys and ":" or "=", between double quotes without, with one and with
// three backslashes, or between single quotes. `bare`, if any, is an alternative with a group.
std::string ValueOf(std::string const& keys, std::string const& bare = {}) {
  return "(?i)(?:" + keys + ")(?:" +                                          //
         R"("?\s*[:=]\s*"((?:[^"\\]|\\.)+))"                                  //
         R"(|(?:\\")?\s*[:=]\s*\\"((?:[^"\\]|\\{1,2}[^"\\]|\\{3}.)+))"        //
         R"(|(?:\\{3}")?\s*[:=]\s*\\{3}"((?:[^"\\]|\\{1,6}[^"\\]|\\{7}.)+))"  //
         R"(|'?\s*[:=]\s*'([^']+))" +                                         //
         (bare.empty() ? "" : "|" + bare) +
         ")";
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool IsLower(char c) { return c >= 'a' && c <= 'z'; }

std::string_view TextOf(std::string_view line, Span span) {
  return line.substr(span.begin, span.end - span.begin);
}

// "user@1000.service" is the name of a systemd unit.
void RefineEmail(std::string_view line, Span found, std::vector<Span>& spans) {
  constexpr std::array<std::string_view, 11> unitTypes = {"service", "socket", "slice",    "scope",
                                                          "target",  "timer",  "mount",    "device",
                                                          "path",    "swap",   "automount"};
  std::string_view const text = TextOf(line, found);
  auto const dot = text.rfind('.');
  auto const at = text.rfind('@');
  bool const isUnit = at != std::string_view::npos && text.find('.', at) == dot &&
                      std::ranges::find(unitTypes, text.substr(dot + 1)) != unitTypes.end();
  if (!isUnit) spans.push_back(found);
}

// Not the middle of a longer number such as an object identifier.
void RefineIpv4(std::string_view line, Span found, std::vector<Span>& spans) {
  std::string_view const text = TextOf(line, found);
  if (text == "127.0.0.1" || text == "0.0.0.0") return;
  if (found.begin >= 2 && line[found.begin - 1] == '.' && IsDigit(line[found.begin - 2])) return;
  spans.push_back(found);
}

// "Face::Add" is a name of C++.
void RefineIpv6(std::string_view line, Span found, std::vector<Span>& spans) {
  std::string const text(TextOf(line, found));
  bool const hasDigit = std::ranges::any_of(text, IsDigit);
  bool const isMixed = std::ranges::any_of(text, IsUpper) && std::ranges::any_of(text, IsLower);
  if (!hasDigit && isMixed) return;
  in6_addr address;
  if (inet_pton(AF_INET6, text.c_str(), &address) != 1) return;
  if (IN6_IS_ADDR_UNSPECIFIED(&address) || IN6_IS_ADDR_LOOPBACK(&address)) return;
  spans.push_back(found);
}

// The values of "a=1&b=2"; a part without "=" is a value itself.
void RefineQuery(std::string_view line, Span found, std::vector<Span>& spans) {
  constexpr std::string_view escapedAmpersand = "\\u0026";  // the only backslash in a query
  std::size_t begin = found.begin;
  while (begin < found.end) {
    std::string_view const rest = line.substr(begin, found.end - begin);
    std::size_t const stop = std::min(rest.find_first_of("&;\\"), rest.size());
    std::string_view const part = rest.substr(0, stop);
    auto const equals = part.find('=');
    std::size_t const value = equals == std::string_view::npos ? 0 : equals + 1;
    if (value < stop && part != "amp") spans.push_back({begin + value, begin + stop});
    begin += stop;
    if (begin < found.end) begin += line[begin] == '\\' ? escapedAmpersand.size() : 1;
  }
}

// "PWD=/home" is the working directory.
void RefinePwd(std::string_view line, Span found, std::vector<Span>& spans) {
  if (line[found.begin] != '/') spans.push_back(found);
}

// "Bearer token" and "basic functions" are prose.
void RefineScheme(std::string_view line, Span found, std::vector<Span>& spans) {
  constexpr std::array<std::string_view, 7> words = {
      "token", "tokens", "auth", "authentication", "authorization", "scheme", "realm"};
  std::string const text = Base::LowerCased(TextOf(line, found));
  if (std::ranges::find(words, text) == words.end()) spans.push_back(found);
}

// Random text, not a word, a name or a path: it has digits, or a quarter of it is upper-case.
void RefineRun(std::string_view line, Span found, std::vector<Span>& spans) {
  std::string_view const text = TextOf(line, found);
  bool const hasDigit = std::ranges::any_of(text, IsDigit);
  bool const hasLower = std::ranges::any_of(text, IsLower);
  auto const upperCount = static_cast<std::size_t>(std::ranges::count_if(text, IsUpper));
  bool const isMixed = hasLower && upperCount * 4 >= text.size();
  bool const isPath = text.front() == '/' || (text.find('/') != std::string_view::npos && !isMixed);
  if (!isPath && (hasDigit || isMixed)) spans.push_back(found);
}

std::vector<BuiltInRule> GetMachineRules() {
  std::vector<BuiltInRule> rules;
  // A trace line is whole, and nothing in it is escaped: the value ends with the line's fields.
  std::string const toEndOfFields = R"(([^"].*?)(?:" \}\s*$|$))";
  std::string const inJson = R"(\\"((?:[^"\\]|\\{1,2}[^"\\]|\\{3}.)+))";
  std::string const output = R"(exitCode:-?\d+ output:)";
  for (std::string const command : {"dmidecode.*", ""}) {
    std::string const name = command.empty() ? commandOutputRule : serialNumberRule;
    for (std::string const& value : {"\"" + toEndOfFields, inJson})
      rules.push_back({name, std::string(command).append(output).append(value)});
  }
  rules.push_back({serialNumberRule, "serialNumber:\"" + toEndOfFields});
  rules.push_back({serialNumberRule,
                   ValueOf("serial[_ -]?(?:number|no)", R"(["'\\]*\s*[:=]\s*([^\s"'\\,;{}<>]+))")});
  rules.push_back({serialNumberRule, R"((?i)serial number: *([^"\\]*[^"\\\s]))"});
  rules.push_back({serialNumberRule,
                   ValueOf(before + "(?:id_)?serial(?:_short)?", R"(\s*=\s*([^\s"'\\,;]+))")});
  rules.push_back({"hex-dump", R"(dataHex:\\*"([0-9A-Fa-f]+))", true});
  rules.push_back({"hex-dump", R"([A-Za-z]Hex:\\*"([0-9A-Fa-f]{9,}))", true});
  return rules;
}

std::vector<BuiltInRule> GetCertificateRules() {
  std::vector<BuiltInRule> rules;
  rules.push_back({"certificate", R"((?i)^\s*(?:subject|issuer)\s*[:=]\s*(.*\S))"});
  rules.push_back({"certificate", ValueOf(before + "(?:subject|issuer)")});
  rules.push_back({"certificate", "(?i)" + before +
                                      R"((?:subject|issuer)\s*=\s*)"
                                      R"(((?:=\s*\\*"[^"]*"|[^"\\]|\\[^nr"])+))"});
  rules.push_back({"certificate", before + R"(CN ?= ?([^,"\\/+]*[^,"\\/+\s]))"});
  rules.push_back({"fingerprint",
                   R"((?i)(?:thumbprint\w*|fingerprint)["'\\]*\s*[:=]\s*["'\\]*([^\s"'\\,;{}]+))",
                   true});
  rules.push_back({"fingerprint", before + "(SHA256:[A-Za-z0-9+/]{43})"});
  return rules;
}

std::vector<BuiltInRule> GetUrlRules() {
  std::vector<BuiltInRule> rules;
  std::string const slashes = R"(:\\*/\\*/)";
  rules.push_back({urlLoginRule, slashes + R"(([^\s/?#"<>]+)@)"});
  // A password with an unescaped "/", "?" or "#". After a host stands a port, which is digits.
  rules.push_back(
      {urlLoginRule, slashes + R"(([^\s/?#"<>@:]+:[^\s"<>@/]*[^0-9\s"<>@/][^\s"<>@]*)@)"});
  rules.push_back({urlLoginRule, R"((?i)%3A%2F%2F([^\s/?#"<>&]+?)%40)"});
  rules.push_back(
      {"url-value", slashes + R"([^\s"<>?#\\]*\?((?:[^\s"<>\\#]|\\u0026)+))", false, RefineQuery});
  rules.push_back({"url-value", R"([?#]([A-Za-z0-9_.~\[\]%*+-]+=(?:[^\s"<>\\#]|\\u0026)*))", false,
                   RefineQuery});
  return rules;
}

std::vector<BuiltInRule> GetTokenRules() {
  std::vector<BuiltInRule> rules;
  std::string const any = R"(["'\\]*\s*[:=]\s*((?:[^\s"'\\,;]|\\[^"\s]|[,;'"][A-Za-z0-9])+))";
  rules.push_back({"token", ValueOf("(?:passw(?:or)?d|passphrase|passcode|passwort|kennwort|secret)"
                                    R"(\w{0,16})",
                                    any)});
  rules.push_back({"token", ValueOf("(?:api|access|private|secret|encryption|signing|shared|master|"
                                    "session|ssh|auth|account)[-_. ]?key",
                                    any)});
  rules.push_back({"token", ValueOf("token", R"(\s*=\s*([^\s"'\\,;&]+))")});
  rules.push_back(
      {"token", ValueOf("pwd|" + before + "pass", R"(\s*=\s*([^\s"'\\,;&]+))"), false, RefinePwd});
  rules.push_back({"token", R"((?i)-(?:password|passwd|passphrase|pass|token|secret|api-key))"
                            R"(\s+([^\s"'\\-][^\s"\\]*))"});
  rules.push_back({"token", R"((?i)-pass(?:in|out)?\s+pass:([^\s"\\]+))"});
  rules.push_back({"token", R"((?i)(?:\s-u|\s--(?:proxy-)?user)[\s=]*(['"]?[^\s:]+:[^\s"\\]+))"});
  rules.push_back({"token", before + "(AAAA[A-Z][A-Za-z0-9+/]{24,}={0,2})"});
  // To the end of the line or value: "Digest" has values in quotes.
  rules.push_back({"token", R"((?i)(?:authorization|cookie)\s*[:=]\s*)"
                            R"(((?:=\\*"[^"\\]*\\*"|[^"\\\s]|\s+[^"\\\s])+))"});
  rules.push_back({"token", ValueOf("authorization|cookie")});
  rules.push_back(
      {"token", R"((?i)(?:bearer|negotiate|ntlm)\s+([^\s"'\\,;]+))", false, RefineScheme});
  rules.push_back(
      {"token", R"((?i:basic)\s+([A-Za-z0-9+/]*[A-Z0-9+/=][A-Za-z0-9+/=]*))", false, RefineScheme});
  rules.push_back({"token", before + R"((eyJ[A-Za-z0-9_-]{8,}\.[A-Za-z0-9_.-]+))"});
  rules.push_back({"token", R"((\$[0-9a-z]{1,3}\$[A-Za-z0-9./$=,+-]{20,}))"});
  rules.push_back({"token",
                   R"((?i)(?:key|token|secret|passw(?:or)?d|passphrase|authorization|)"
                   R"(credential|signature|nonce|cookie|session)s?[^A-Za-z0-9+/]{1,8})"
                   R"((?:[a-z]{1,12}[^A-Za-z0-9+/]{1,3}){0,3}?)"
                   R"(([A-Za-z0-9+/_-]{16,}={0,2}))",
                   false, RefineRun});
  return rules;
}

std::vector<BuiltInRule> GetPersonRules() {
  std::vector<BuiltInRule> rules;
  rules.push_back({emailRule,
                   before + R"(([A-Za-z0-9_%+~\x80-\xff-][A-Za-z0-9_%+~'.\x80-\xff-]*(?:@|%40))"
                            R"((?:\[[0-9A-Fa-f:.]+\]|(?:[A-Za-z0-9\x80-\xff-]+\.)+)"
                            R"([A-Za-z\x80-\xff]{2,})))",
                   true, RefineEmail});
  // The name ends before a full stop at the end of a sentence.
  std::string const slash = R"((?:\\*/|%2[fF]))";
  rules.push_back({"user", slash + "(?:home|Users)" + slash +
                               R"(([^\s/"'\\:,;<>()\[\]{}|%&?#]*[^\s/"'\\:,;<>()\[\]{}|%&?#.]))"});
  return rules;
}

std::vector<BuiltInRule> GetAddressRules() {
  std::vector<BuiltInRule> rules;
  std::string const octet = "(?:25[0-5]|2[0-4][0-9]|1[0-9]{2}|[1-9]?[0-9])";
  std::string const v4 = octet + R"((?:\.)" + octet + "){3}";
  rules.push_back(
      {"ipv4", before + "(" + v4 + R"()(?:[^0-9A-Za-z.]|\.(?:[^0-9]|$)|$))", false, RefineIpv4});
  std::string const group = "[0-9A-Fa-f]{1,4}";
  std::string const groups = group + "(?::" + group + "){0,6}";
  rules.push_back({"ipv6",
                   before + "((?:" + group + ":){6}(?:" + group + ":" + group + "|" + v4 +
                       ")|(?:" + groups + ")?::(?:(?:" + group + ":){0,6}(?:" + v4 + "|" + group +
                       R"())?)(?:[^0-9A-Za-z:]|:(?:[^0-9A-Fa-f:]|$)|$))",
                   true, RefineIpv6});
  rules.push_back({"mac",
                   before +
                       R"(((?:[0-9A-Fa-f]{2}[:-]){5}[0-9A-Fa-f]{2}|)"
                       R"((?:[0-9A-Fa-f]{4}\.){2}[0-9A-Fa-f]{4}))" +
                       R"((?:[^0-9A-Za-z:-]|[:-](?:[^0-9A-Fa-f]|$)|$))",
                   true});
  std::string const hyphen = R"((?:-|_|\\+x2[dD]))";
  rules.push_back({"uuid",
                   before + "([0-9A-Fa-f]{8}(?:" + hyphen + "[0-9A-Fa-f]{4}){3}" + hyphen +
                       "[0-9A-Fa-f]{12})" + after,
                   true});
  rules.push_back(
      {"fingerprint", before + "((?:[0-9A-Fa-f]{2}[:-]){7,}[0-9A-Fa-f]{2})" + after, true});
  rules.push_back(
      {"fingerprint", before + "((?:[0-9A-Fa-f]{2} ){15,}[0-9A-Fa-f]{2})" + after, true});
  rules.push_back({"uuid", before + "([0-9A-Fa-f]{32})" + after, true});
  rules.push_back({"fingerprint", before + "([0-9A-Fa-f]{40,})" + after, true});
  return rules;
}

// Matches what one of the rules matches.
std::string AnyOf(std::vector<BuiltInRule> const& rules) {
  std::string any;
  for (BuiltInRule const& rule : rules) any += (any.empty() ? "(?:" : "|(?:") + rule.pattern + ")";
  return any;
}

}  // namespace

std::vector<RuleGroup> GetBuiltInRules() {
  std::vector<BuiltInRule> const addresses = GetAddressRules();
  return {
      {"(?i)serial|output:|hex:", GetMachineRules()},
      {"(?i)subject|issuer|print|cn ?=|sha256:", GetCertificateRules()},
      {R"((?i):\\*/|%3a%2f|[?#])", GetUrlRules()},
      {R"((?i)pass|pwd|kennwort|secret|key|token|authorization|cookie|bearer|negotiate|ntlm|basic|)"
       R"(eyj|aaaa|user|-u|\$|credential|signature|nonce|session)",
       GetTokenRules()},
      {"(?i)@|%40|home|users", GetPersonRules()},
      {AnyOf(addresses), addresses},
  };
}

}  // namespace Support
