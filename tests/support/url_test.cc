#include "support/url.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/error.h"

namespace {

using Support::Url;

TEST(UrlTest, TextsOfOneUrlHaveOneNormalText) {
  std::pair<char const*, char const*> const cases[] = {
      {"HTTP://ExAmple.COM:80", "http://example.com/"},
      {"https://h:443/a/./b/../../..//c/.", "https://h//c/"},
      {"https://h:80/a/..", "https://h:80/"},
      {"http://h/%7euser%2f%c3%A4%2e%2E/x", "http://h/~user%2F%C3%A4../x"},
      {"http://h/a/%2e%2e/x?%41=%2f#%5A", "http://h/x?A=%2F#Z"},
      {"http://h/a b|\xc3\xa4?\"^#`", "http://h/a%20b%7C%C3%A4?%22%5E#%60"},
      {"http://u%3a%70:p:w%40@h/", "http://u%3Ap:p:w%40@h/"},
      {"http://[2001:DB8::1]:8080/", "http://[2001:db8::1]:8080/"},
      {"http://[FE80::1%25Eth0]/", "http://[fe80::1%25Eth0]/"},
      {"http://m\xc3\xbcnchen/", "http://xn--mnchen-3ya/"},
      {"file:///a//b", "file:///a//b"},
      {"ws:./.", "ws:/"},
      {"x:/.//b/./..", "x:/.//"},
      {"mailto:b@c?subject=%61", "mailto:b@c?subject=a"},
      {"http://h/?#", "http://h/?#"}};
  for (auto const& [text, normal] : cases) {
    EXPECT_EQ(Url::Parse(text).ToText(), normal);
    EXPECT_TRUE(Url::Parse(normal) == Url::Parse(text)) << text;
  }
}

TEST(UrlTest, HasItsParts) {
  Url const url = Url::Parse("https://user:p%40:@[::1]/path?query#fragment");
  EXPECT_EQ(url.GetScheme() + " " + *url.GetUser() + " " + *url.GetPassword() + " " +
                *url.GetHost() + " " + url.GetPath() + " " + *url.GetQuery(),
            "https user p%40: ::1 /path query");
  EXPECT_EQ(url.GetFragment(), "fragment");
  EXPECT_EQ(url.GetPort(), 443);
  EXPECT_EQ(url.ToTextWithoutSecrets(), "https://[::1]/path");
  Url const bare = Url::Parse("a:");
  EXPECT_FALSE(bare.GetUser() || bare.GetPassword() || bare.GetHost() || bare.GetPort() ||
               bare.GetQuery() || bare.GetFragment());
}

TEST(UrlTest, RefusalNamesTheWrongPartAndKeepsTheTextSecret) {
  std::pair<char const*, std::vector<std::string>> const cases[] = {
      {"scheme", {"", "//secret/x", "1secret://h"}},
      {"user", {"http://secret%zz@h/"}},
      {"password", {"http://u:secret%4@h/"}},
      {"host",
       {"http://[secret]/", "http://secret%ff/", "http://u:p@secret@h/", "x://secret%2fh/",
        "http://h%3asecret/", "http://[::1%25secret%2f]/"}},
      {"port", {"http://h:secret/", "http://h:65536/secret"}},
      {"path", {"http://h/secret%"}},
      {"query", {"http://h/?secret%0"}},
      {"fragment", {"http://h/#secret%g0"}},
      {"text", {std::string("http://h/secret\0x", 17)}}};
  for (auto const& [reason, texts] : cases) {
    for (std::string const& text : texts) {
      try {
        Url::Parse(text);
        ADD_FAILURE() << text;
      } catch (Support::Error const& error) {
        EXPECT_EQ(error.GetFields().at("reason"), reason) << text;
        EXPECT_EQ(error.ToText().find("secret"), std::string::npos) << text;
      }
    }
  }
}

}  // namespace
