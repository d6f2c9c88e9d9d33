#include "support/redaction_rules.h"

#include <arpa/inet.h>
#include <re2/re2.h>

#include <algorithm>
#include <array>

#include "base/text.h"
#include "support/redaction_values.h"

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
// whether a long run of letters is random, where the value after a key ends (redaction_values.h).

namespace Support {

namespace {

// What may stand before and behind a word.
std::string const before = wordStartPattern;
std::string const after = R"((?:[^0-9A-Za-z]|$))";

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

// Not the middle of a longer number such as an object identifier. "version 1.2.3.4" is a version
// if the first number is small and the address would not be one of a private network.
void RefineIpv4(std::string_view line, Span found, std::vector<Span>& spans) {
  static RE2 const version(R"((?i)\bversion(?: is)?["']?[ :=]+["'v]*$)", RE2::Latin1);
  constexpr std::size_t maxContext = 16;
  std::string_view const text = TextOf(line, found);
  if (text == "127.0.0.1" || text == "0.0.0.0") return;
  if (found.begin >= 2 && line[found.begin - 1] == '.' && IsDigit(line[found.begin - 2])) return;
  bool const isSmall = text.find('.') <= 2 && !text.starts_with("10.");
  std::size_t const length = std::min(found.begin, maxContext);
  std::string_view const context = line.substr(found.begin - length, length);
  if (isSmall && RE2::PartialMatch(re2::StringPiece(context.data(), context.size()), version))
    return;
  spans.push_back(found);
}

// "anna" of "anna/x", "CORP/anna" of "CORP/anna": a folder of users is upper-case or a domain.
void RefineHome(std::string_view line, Span found, std::vector<Span>& spans) {
  std::string_view const text = TextOf(line, found);
  std::size_t const end = std::min(text.find_first_of("/\\%"), text.size());
  std::string_view const first = text.substr(0, end);
  bool const isGroup = std::ranges::none_of(first, IsLower) || first.starts_with('.') ||
                       first.find_first_of(".@") < first.size() - 1;
  Span part{found.begin, isGroup ? found.end : found.begin + end};
  while (part.end > part.begin && line[part.end - 1] == '.') --part.end;
  spans.push_back(part);
}

// Users of the system are the same on all machines.
void RefineUser(std::string_view line, Span found, std::vector<Span>& spans) {
  constexpr std::array<std::string_view, 22> systemUsers = {
      "root",    "ktclientd", "nobody", "daemon",   "sshd",  "messagebus", "polkitd", "gdm",
      "lightdm", "sddm",      "mail",   "www-data", "sudo",  "adm",        "unknown", "manager",
      "tty",     "none",      "is",     "default",  "users", "privileges"};
  std::string_view const text = TextOf(line, found);
  if (text.starts_with("systemd") || std::ranges::find(systemUsers, text) != systemUsers.end())
    return;
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

// The random parts of a path, and all parts behind "hooks" and the like.
void RefinePath(std::string_view line, Span found, std::vector<Span>& spans) {
  static RE2 const isBeforeSecret("(?i)^services$|hook|workflow|invite|reset|token|secret|verify",
                                  RE2::Latin1);
  constexpr std::size_t minLength = 16;
  bool isSecret = false;
  std::size_t begin = found.begin;
  while (begin < found.end) {
    std::string_view const rest = line.substr(begin, found.end - begin);
    std::string_view const part = rest.substr(0, rest.find_first_of("/\\"));
    Span const span{begin, begin + part.size()};
    if (isSecret && !part.empty()) {
      spans.push_back(span);
    } else if (part.size() >= minLength && part.find('.') == std::string_view::npos) {
      RefineRun(line, span, spans);
    }
    isSecret =
        isSecret || RE2::PartialMatch(re2::StringPiece(part.data(), part.size()), isBeforeSecret);
    begin += part.size() + 1;
  }
}

std::vector<BuiltInRule> GetMachineRules() {
  std::vector<BuiltInRule> rules;
  // A trace line is whole, and nothing in it is escaped: the value ends with the line's fields.
  std::string const toEndOfFields = R"((.*?)(?:" \}\s*$|$))";
  std::string const inJson = R"(\\"((?:[^"\\]|\\{1,2}[^"\\]|\\{3}.)+))";
  std::string const output = R"(exitCode:-?\d+ output:)";
  for (std::string const command : {"dmidecode.*", ""}) {
    std::string const name = command.empty() ? commandOutputRule : serialNumberRule;
    for (std::string const& value : {"\"" + toEndOfFields, inJson})
      rules.push_back({name, std::string(command).append(output).append(value)});
  }
  rules.push_back({serialNumberRule, "serialNumber:\"" + toEndOfFields});
  rules.push_back({"hex-dump", R"(dataHex:\\*"([0-9A-Fa-f]+))", true});
  rules.push_back({"hex-dump", R"([A-Za-z]Hex:\\*"([0-9A-Fa-f]{9,}))", true});

  auto const add = [&](std::string const& pattern, auto refine) {
    rules.push_back({serialNumberRule, "(?i)" + pattern, false, refine});
  };
  // "Serial Number: x", "bios_serial_number":"x", ID_SERIAL_SHORT=x, "S/N: x", "Asset Tag: x"
  std::string const number = R"((?:[-_ .]?(?:number|num|no|nr|short|id)\b|#)?\.?)";
  add("((?:serial" + number + "|(?:asset|service|inventory)[-_ ]?(?:tag|number|no)" +
          R"(|imei|iccid|imsi|wwn(?:_\w+|\sdevice id)?))" + separatorPattern + ")",
      RefineMachineNumber);
  add(before + R"(((?:s/n|sn))" + separatorPattern + ")", RefineMachineNumber);
  // 'Serial number "x"', "serial number is x", "Service Tag x"
  add(R"((serial number\s+)\\*["'])", RefineMachineNumber);
  add(R"((?:serial|service tag|asset tag|imei)(?:[-_ ](?:number|no\.?))?\s+(?:is\s+|was\s+)?)"
      R"(([^\s"'\\,;:{}()]*\d[^\s"'\\,;:{}()]+))",
      nullptr);
  // /dev/disk/by-id/ata-MODEL_x
  add(R"(by(?:-|\\+x2d)id(?:/|-)(?:\w|\\+x2d)+?(?:-|\\+x2d)([^\s/"',;:)]+))", nullptr);
  return rules;
}

std::vector<BuiltInRule> GetCertificateRules() {
  std::vector<BuiltInRule> rules;
  // The text goes on to the end of the line, or of the JSON value that holds it.
  std::string const text = R"(((?:\\*"[^"]*")?(?:=\s*\\*"[^"]*"|[^"\\]|\\[^nr"])*))";
  rules.push_back({"certificate", R"((?i)^\s*(?:subject|issuer)\s*[:=]\s*(.*\S))"});
  rules.push_back({"certificate",
                   "(?i)(" + before + "(?:subject|issuer)" + R"(\\*["'])" + separatorPattern + ")",
                   false, RefinePhrase});
  rules.push_back({"certificate", "(?i)" + before + R"((?:subject|issuer)\s*[:=]\s*)" + text});
  // "C = DE, O = Works, CN = x", "uid=x,ou=people,dc=corp", "/C=DE/CN=x": all parts from the first
  // one on. The small parts count only in front of a part that is surely one of a name.
  std::string const part = R"((?:[A-Z][A-Za-z]{0,15}|uid|cn|ou|o|c|l|st) ?= ?)"
                           R"((?:\\*"[^"]*"|[^,"=\\]|\\[^nr"])*[,+;] ?)";
  std::string const sure = R"((?i:(?:CN|OU|DC|emailAddress) ?= ?)|)"
                           R"((?:C|ST|L|O) ?= ?[^,"=]+[,+] ?(?:C|ST|L|O|S|STREET) ?= ?)";
  rules.push_back({"certificate", before + "((?:" + part + "){0,8}?(?:" + sure + ")" + text + ")"});
  rules.push_back({"certificate", R"((?:^|[\s"'=:(])(/(?:C|CN|DC|O|OU|ST|L|UID)=[^"]+))"});
  rules.push_back({"certificate", ": (O ?= ?" + text + ")"});
  rules.push_back(
      {"certificate", R"((?i)(?:commonName|(?:organization|organizationalUnit|locality|)"
                      R"(stateOrProvince)Name|emailAddress|givenName|surname)\s*[:=]\s*)" +
                          text});
  rules.push_back({"certificate", before + R"(DNS:([^\s,"\\]+))"});
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
  // https://chat.test/hooks/T01/x: a part of the path can be a key.
  std::string const host = slashes + R"([^\s"'<>/?#\\]+)";
  rules.push_back({"url-path", host + R"((/[^\s"'<>?#]*))", false, RefinePath});
  return rules;
}

std::vector<BuiltInRule> GetPersonRules() {
  std::vector<BuiltInRule> rules;
  rules.push_back({emailRule,
                   before + R"(([A-Za-z0-9_%+~\x80-\xff-][A-Za-z0-9_%+~'.\x80-\xff-]*(?:@|%40))"
                            R"((?:\[[0-9A-Fa-f:.]+\]|(?:[A-Za-z0-9\x80-\xff-]+\.)+)"
                            R"([A-Za-z\x80-\xff]{2,})))",
                   true, RefineEmail});
  // anna@localhost, anna@CORP; "getty@tty1.service" is a unit.
  rules.push_back({emailRule,
                   before + R"(([A-Za-z_][A-Za-z0-9_.+-]*(?:@|%40)[A-Za-z0-9][A-Za-z0-9-]*))"
                            R"((?:[^0-9A-Za-z._@\\-]|\\[nrt"]|\.(?:[^0-9A-Za-z]|$)|$))",
                   true});
  // /home/anna, and /home/CORP/anna
  std::string const slash = R"((?:\\*/|%2[fF]))";
  std::string const folder = R"([^\s/"'\\:,;<>()\[\]{}|%&?#]+)";
  rules.push_back(
      {"user",
       slash + "(?:home[0-9]?|Users)" + slash + "(" + folder + "(?:" + slash + folder + ")?)",
       false, RefineHome});
  // Other folders and files with the name of a user. The name ends before a full stop.
  std::string const name = R"(([^\s/"'\\:,;<>()\[\]{}|%&?#]*[^\s/"'\\:,;<>()\[\]{}|%&?#.]))";
  rules.push_back({"user", slash + "(?:(?:var|spool)" + slash + "mail|crontabs|AccountsService" +
                               slash + "(?:users|icons)|linger|media)" + slash + name});
  rules.push_back({"user", R"((?:^|[\s"'=:(])~([A-Za-z_][\w.-]*)/)"});
  rules.push_back({"user", R"(\\+Users\\+([^\s\\/"']+))"});
  rules.push_back({"user", before + R"(home-((?:[^\s/"'.\\]|\\+x2d)+)\.(?:auto)?mount)"});
  // What logs and tools say about a user.
  std::string const user = R"(([A-Za-z_][\w.@\\-]*))";
  std::vector<std::string> const patterns = {
      // ruser=anna, "username":"anna", login: anna
      before + R"((?:(?:r|l|e|s|g)?user(?:name|id)?|USER(?:NAME)?|logname|LOGNAME|login))" +
          R"(["'\\]*\s?[:=]\s?["'\\]*)" + user,
      // "for user anna(uid=1000)", "Accepted password for anna from", "User anna from"
      before + R"((?:(?:for|of|by|as) [Uu]ser|[Pp]assword for|[Pp]ublickey for) ["'(]?)" + user +
          R"(["')]?(?:\(uid=\d+\)|[.:,;]?(?:$|")| (?:from|by|on|for|at|via)\b))",
      before + "User " + user + " (?:from|not|logged|authenticated)",
      "(?:authenticating|[Ii]nvalid|[Ii]llegal) user " + user, "FOR '" + user,
      // groups=1000(anna),27(sudo)
      R"([=,]\d+\()" + user + R"(\))",
      // "sudo: anna : TTY=", "su: (to root) anna on", "CRON[1]: (anna) CMD"
      before + R"((?:su|sudo)(?:\[\d+\])?:\s+)" + user + " : ", R"(\(to \w+\) )" + user,
      R"(\()" + user + R"(\) CMD)"};
  for (std::string const& pattern : patterns) {
    rules.push_back({"user", pattern, false, RefineUser});
  }
  return rules;
}

std::vector<BuiltInRule> GetAddressRules() {
  std::vector<BuiltInRule> rules;
  std::string const octet = "(?:25[0-5]|2[0-4][0-9]|1[0-9]{2}|[1-9]?[0-9])";
  std::string const v4 = octet + R"((?:\.)" + octet + "){3}";
  rules.push_back(
      {"ipv4", before + "(" + v4 + R"()(?:[^0-9A-Za-z.]|\.(?:[^0-9]|$)|$))", false, RefineIpv4});
  rules.push_back({"ipv4", before + R"(ip[-_](\d{1,3}(?:[-_]\d{1,3}){3}))" + after});
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
  // mac=001122334455, and the name of an interface: enx001122334455
  rules.push_back({"mac",
                   R"((?i)(?:mac|hwaddr|ether|lladdr|bssid|address|hw)(?:[-_ ]?addr(?:ess)?)?)"
                   R"((?:\s+is)?[\s"'\\:=]+([0-9a-f]{12}))" +
                       after,
                   true});
  rules.push_back({"mac", before + "(?:en|wl|ww)x([0-9A-Fa-f]{12})" + after, true});
  // The machine or domain of Windows.
  rules.push_back({"uuid", before + R"((S-1-5-21(?:-\d+){3,4}))"});
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

void RefineRun(std::string_view line, Span found, std::vector<Span>& spans) {
  std::string_view const text = TextOf(line, found);
  bool const hasDigit = std::ranges::any_of(text, IsDigit);
  bool const hasLower = std::ranges::any_of(text, IsLower);
  auto const upperCount = static_cast<std::size_t>(std::ranges::count_if(text, IsUpper));
  bool const isMixed = hasLower && upperCount * 4 >= text.size();
  bool const isPath = text.front() == '/' || (text.find('/') != std::string_view::npos && !isMixed);
  if (!isPath && (hasDigit || isMixed)) spans.push_back(found);
}

std::vector<RuleGroup> GetBuiltInRules() {
  std::vector<BuiltInRule> const addresses = GetAddressRules();
  std::vector<BuiltInRule> const forms = GetTokenFormRules();
  return {
      {"(?i)serial|output:|hex:|tag|number|by(?:-|\\\\+x2d)id|s/"
       "?n[\"'\\\\]*\\s*[:=]|imei|iccid|imsi|wwn",
       GetMachineRules()},
      {"(?i)subject|issuer|print|(?:cn|ou|dc|name *|emailaddress|\\b(?:o|l|st)) "
       "*[:=]|/c=|sha256:|dns:",
       GetCertificateRules()},
      {R"((?i):\\*/|%3a%2f|[?#])", GetUrlRules()},
      {R"((?i)pass|pw|kennwort|secret|key|token|authorization|cookie|bearer|negotiate|ntlm|basic|)"
       R"(credential|signature|nonce|session|sess-?_?id|psk|\bpin|puk|otp|auth|cred|sid|licen|)"
       R"(community|(?:account|activation|access|recovery)|-user|\s["']?-[upwak]|/p|echo|printf|)"
       R"(:\S+@\S)",
       GetTokenRules()},
      {AnyOf(forms), forms},
      {"(?i)@|%40|home|user|y for|d for|for '|mail|crontabs|linger|media|~/|~[a-z]|log(?:name|in)|"
       "id=|su(?:do)?[:[]|\\(to |cmd|[=,]\\d+\\(",
       GetPersonRules()},
      {AnyOf(addresses), addresses},
  };
}

}  // namespace Support
