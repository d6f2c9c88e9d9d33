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
  Require(Url::Parse(text) == url);
  for (char const character : text) Require(character > ' ' && character < 0x7f);

  Url const bare = Url::Parse(url.ToTextWithoutSecrets());
  Require(bare.ToText() == url.ToTextWithoutSecrets());
  Require(!bare.GetUser() && !bare.GetPassword() && !bare.GetQuery() && !bare.GetFragment());
  Require(bare.GetHost() == url.GetHost() && bare.GetPath() == url.GetPath());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  // Normalising makes this text of no other: it never decodes "$", and there are no letters whose
  // case it could change.
  std::string const secret = "$1+2*3$";
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
