#include <algorithm>
#include <array>

#include "base/text.h"
#include "support/redaction_rules.h"
#include "support/redaction_values.h"

// Passwords, tokens and keys. Few of them have a form of their own; most are found by the key or
// the option before them. The expression of such a rule describes the key alone, and a function
// finds where the value ends, because that depends on the quotes around it.

namespace Support {

namespace {

// Passwords of people can have several words.
constexpr char const* phraseKeys =
    R"((?:passw(?:or)?d\w{0,16}|pass[-_ ]?(?:phrase|code|key)\w{0,4}|pass|passwort|kennwort)"
    R"(|secret\w{0,16}|credentials?(?:encrypted)?|psk|pre-?shared[-_ ]?key|pw|authorization|cookie))";

// Tokens of programs have no white space.
constexpr char const* wordKeys =
    R"((?:tokens?|[a-z0-9][-_]key|(?-i:[a-z]Key)|(?:api|access|private|encryption|signing|shared)"
    R"(|master|session|ssh|auth|account|storage|licen[cs]e|product|activation|recovery)[-_. ]?)"
    R"((?:key|code)|licen[cs]e[-_ ]?(?:id|number)|(?:session|account|j?sess|phpsess)[-_ ]?id)"
    R"(|signature|nonce|community))";

// A word alone, not the end of another one: "spin", "monkey".
constexpr char const* shortKeys =
    R"((?:pin(?:[-_ ]?code)?|puk|otp|totp|auth|key|cred|sid|licen[cs]e))";

// "Bearer token" and "basic functions" are prose.
void RefineScheme(std::string_view line, Span key, std::vector<Span>& spans) {
  constexpr std::array<std::string_view, 8> words = {
      "token", "tokens", "auth", "authentication", "authorization", "scheme", "realm", "and"};
  std::size_t const before = spans.size();
  RefineWord(line, key, spans);
  if (spans.size() == before) return;
  std::string const text =
      Base::LowerCased(line.substr(spans.back().begin, spans.back().end - spans.back().begin));
  if (std::ranges::find(words, text) != words.end()) spans.pop_back();
}

}  // namespace

std::vector<BuiltInRule> GetTokenRules() {
  std::string const before = wordStartPattern;
  std::string const separator = separatorPattern;
  std::vector<BuiltInRule> rules;
  auto const add = [&](std::string const& pattern, auto refine) {
    rules.push_back({"token", "(?i)" + pattern, false, refine});
  };

  // DB_PASSWORD=x, "password": "x", pass: x, secret => x, Environment="A_SECRET=x y"
  add("(" + (phraseKeys + separator) + ")", RefinePhrase);
  add("(pwd" + separator + ")", RefinePwd);
  // TOKEN=x, "api_key": "x", LICENSE_KEY=x, ;jsessionid=x
  add("(" + (wordKeys + separator) + ")", RefineWord);
  add(R"((?:^|[\s"',;{(<=]))"
      "(" +
          (shortKeys + separator) + ")",
      RefineWord);
  // "Password (again): x", "[sudo] password for anna: x", "PASSWORD ....: x"
  add("(" + std::string(phraseKeys) +
          R"((?:\s\([^()]{0,40}\)|[ .]{2,80}|\sfor\s(?:key\s|user\s)?)"
          R"(['"]?[^\s:'"]+['"]?)\s?:\s))",
      RefinePhrase);
  // define('DB_PASSWORD', 'x')
  add("(" + std::string(phraseKeys) + R"(\\*["'],\s*)\\*["'])", RefinePhrase);
  // <db:password type="plain">x</db:password>
  add(R"((<[\w:.-]*)" + std::string(phraseKeys) + R"([\w.-]*(?:\s[^<>]*)?>))", RefineElement);
  add(R"((<[\w:.-]*(?:token|key)(?:\s[^<>]*)?>))", RefineElement);

  // "The password is x", "password set to x", "with password 'x'"
  add(R"(((?:pass(?:word|wd|phrase|code)|passwort|kennwort|pin|secret)s?\s+)"
      R"((?:is|was|are|=>?|set to|changed to|reset to)(?:\s+now)?\s*:?\s+))",
      RefineSentence);
  add(R"((pass(?:word|wd|phrase|code)\s+)\\*["'])", RefineSentence);

  // .netrc: machine m login anna password x; also over several lines
  add(R"(((?:^|\s)(?:login|account)\s+)[^\s:=]+\s+password\s)", RefinePhrase);
  add(R"((?:^|["':])\s*(passw(?:or)?d\s+)[^\s"\\]+\s*(?:$|\\*"))", RefineSentence);
  // username anna password 7 x; nmcli device wifi connect s password x
  add(R"(((?:username|nmcli|ssid|account)\s.*?\spassword\s+(?:\d\s+)?))", RefineSentence);
  // ldap.conf, redis.conf: bindpw x
  add(before + R"(((?:bindpw|rootpw|requirepass|masterauth|masterpass)\s+))", RefinePhrase);

  // --password x, -passphrase x, "--token", "x"
  add(before + R"((--?[\w-]*?(?:password|passwd|passphrase|passcode|pass|pw|secret)["'\\]*[\s,]+))",
      RefineSentence);
  add(before +
          R"((--?[\w-]*?(?:token|api-?key|access-key|bearer|oauth2-bearer|auth)["'\\]*[\s,]+))",
      RefineWord);
  // curl -u user:x, smbclient -U user%x
  add(R"((?:\s|["'])((?:-u|--(?:proxy-)?user)(?:\\*["'],)?[\s=]*))", RefineLogin);
  // Options that mean a password only with this program: sshpass -p x
  auto const addOption = [&](std::string const& programs, std::string const& option) {
    add(before + "((?:" + programs + R"()(?-i:\s(?:[^|]*?\s)??)" + option + R"((?:\\*["'],)?\s*)))",
        RefineWord);
  };
  addOption(R"(sshpass|my\w+|maria\w+|rdesktop|vnc\w+|7z\w*|zip|useradd|usermod)", "-p");
  addOption(R"(ipmitool|unzip|zip|mosquitto_\w+)", "-P");
  addOption(R"(ldap\w+)", R"(-\w*w)");
  addOption("ssh-keygen", "-[NP]");
  addOption(R"((?:docker|podman)\s+login)", "-p");
  addOption(R"(snmp\w+)", "-[cAX]");
  addOption("curl", "(?:-b|--cookie)");
  add(before + R"((htpasswd\s+-\w*b\w*\s+\S+\s+\S+\s+))", RefineWord);
  addOption("redis-cli", "-a");
  addOption("openssl", "-[kK]");
  add(R"(\s(/p(?:assword)?:))", RefineWord);
  // echo x | sudo -S sh
  add(before + R"((?:echo|printf)\s+(?:-\w+\s+)?(.+?)\s*\|\s*(?:\S*/)?(?:sudo|su|passwd|chpasswd)"
               R"(|cryptsetup|kinit|docker|smbpasswd)\b)",
      nullptr);
  // anna:x@db.test:5432, without the "//" of a URL
  add(before + R"(((?:[a-z0-9._%+-]+):[^\s"'<>@/\\][^\s"'<>]*)@[a-z0-9\[])", nullptr);

  // Authorization: Bearer x
  add(before + R"(((?:bearer|negotiate|ntlm)\s+))", RefineScheme);
  add(before + R"(basic\s+((?-i:[A-Za-z0-9+/]*[A-Z0-9+/=][A-Za-z0-9+/=]*)))", nullptr);

  // key is 0123456789abcdef
  rules.push_back({"token",
                   R"((?i)(?:key|token|secret|passw(?:or)?d|passphrase|authorization|)"
                   R"(credential|signature|nonce|cookie|session)s?[^A-Za-z0-9+/]{1,8})"
                   R"((?:[a-z]{1,12}[^A-Za-z0-9+/]{1,3}){0,3}?)"
                   R"(([A-Za-z0-9+/_-]{16,}={0,2}))",
                   false, RefineRun});
  return rules;
}

std::vector<BuiltInRule> GetTokenFormRules() {
  std::string const before = wordStartPattern;
  std::vector<BuiltInRule> rules;
  // SSH keys, web tokens, hashes of passwords, tokens of services.
  for (char const* form :
       {"(AAAA[A-Z][A-Za-z0-9+/]{24,}={0,2})", R"((eyJ[A-Za-z0-9_-]{8,}\.[A-Za-z0-9_.-]+))",
        R"(((?:gh[a-z]_|github_pat_|glpat-|xox[a-z]-|AKIA|ASIA|AIza|sk-|hvs\.|npm_|pypi-|ya29\.))"
        R"([A-Za-z0-9_.-]{10,}))"}) {
    rules.push_back({"token", before + form});
  }
  rules.push_back({"token", R"((\$[0-9a-z]{1,3}\$[A-Za-z0-9./$=,+-]{20,}))"});
  rules.push_back({"token", R"((\{(?:S?SHA\d*|S?MD5|CRYPT|PBKDF2[A-Z0-9-]*)\}[^\s"'\\,;]+))"});
  return rules;
}

}  // namespace Support
