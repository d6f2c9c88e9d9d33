#include <cstddef>
#include <cstdint>
#include <string>

#include "support/error.h"
#include "support/url.h"

// A URL that is accepted has a normal text, which is accepted as the same URL; the text without
// secrets is the URL without them, and holds none that was put into its user, password or query.
// Other texts are refused by a Support::Error and nothing else.

namespace {

using Support::Url;

void Require(bool condition) {
  if (!condition) __builtin_trap();
}

void CheckParts(Url const& url) {
  std::string const text = url.ToText();
  Url const again = Url::Parse(text);
  Require(again.ToText() == text);
  Require(again.GetScheme() == url.GetScheme());
  Require(again.GetUser() == url.GetUser());
  Require(again.GetPassword() == url.GetPassword());
  Require(again.GetHost() == url.GetHost());
  Require(again.GetPort() == url.GetPort());
  Require(again.GetPath() == url.GetPath());
  Require(again.GetQuery() == url.GetQuery());
  Require(again.GetFragment() == url.GetFragment());
  for (char const character : text) Require(character > ' ' && character < 0x7f);

  std::string const open = url.ToTextWithoutSecrets();
  Url const bare = Url::Parse(open);
  Require(bare.ToTextWithoutSecrets() == open && bare.ToText() == open);
  Require(!bare.GetUser() && !bare.GetPassword() && !bare.GetQuery() && !bare.GetFragment());
  Require(bare.GetHost() == url.GetHost() && bare.GetPath() == url.GetPath());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  // Of characters that normalising leaves as they are, also when they are percent-encoded.
  std::string const secret = "$pl+nt*d$";
  if (text.find(secret) != std::string::npos) return 0;
  std::string const urls[] = {text, "http://" + secret + ":" + secret + "@" + text,
                              "x://" + secret + "@h/" + text + "?" + secret, text + "#" + secret};
  for (std::string const& planted : urls) {
    try {
      Url const url = Url::Parse(planted);
      CheckParts(url);
      Require(url.ToTextWithoutSecrets().find(secret) == std::string::npos);
    } catch (Support::Error const& error) {
      Require(error.GetCode() == "url-invalid");
      Require(error.ToText().find(secret) == std::string::npos);
    }
  }
  return 0;
}
