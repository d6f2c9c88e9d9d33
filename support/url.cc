#include "support/url.h"

#include <glib.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

#include "support/error.h"

// GUri parses and composes. With G_URI_FLAGS_ENCODED it leaves percent-encoding in the parts,
// normalises it, and then removes dot segments. What GUri does not normalise is done here: hosts,
// and characters that a part may not contain.

namespace Support {

namespace {

constexpr auto flags = static_cast<GUriFlags>(G_URI_FLAGS_ENCODED | G_URI_FLAGS_HAS_PASSWORD |
                                              G_URI_FLAGS_SCHEME_NORMALIZE);

// What parts may contain besides letters, digits and percent-encoding (RFC 3986, appendix A).
constexpr std::string_view unreserved = "-._~";
constexpr std::string_view nameCharacters = "-._~!$&'()*+,;=";
constexpr std::string_view passwordCharacters = "-._~!$&'()*+,;=:";
constexpr std::string_view pathCharacters = "-._~!$&'()*+,;=:@/";
constexpr std::string_view queryCharacters = "-._~!$&'()*+,;=:@/?";

char const* GetReason(int code) {
  switch (code) {
    case G_URI_ERROR_BAD_USER:
      return "user";
    case G_URI_ERROR_BAD_PASSWORD:
      return "password";
    case G_URI_ERROR_BAD_HOST:
      return "host";
    case G_URI_ERROR_BAD_PORT:
      return "port";
    case G_URI_ERROR_BAD_PATH:
      return "path";
    case G_URI_ERROR_BAD_QUERY:
      return "query";
    case G_URI_ERROR_BAD_FRAGMENT:
      return "fragment";
    default:  // no scheme
      return "scheme";
  }
}

Error MakeError(char const* reason) {
  return Error("url-invalid", std::string("The URL is not valid: its ") + reason + " is wrong.")
      .With("reason", reason);
}

bool IsContained(char character, std::string_view others) {
  return g_ascii_isalnum(character) || others.find(character) != std::string_view::npos;
}

// Of a part whose percent-encoding is normal.
std::string EncodeOthers(std::string_view part, std::string_view allowed) {
  static constexpr std::string_view digits = "0123456789ABCDEF";
  std::string encoded;
  for (char const character : part) {
    if (character == '%' || IsContained(character, allowed)) {
      encoded += character;
      continue;
    }
    auto const byte = static_cast<unsigned char>(character);
    encoded += {'%', digits[byte / 16], digits[byte % 16]};
  }
  return encoded;
}

std::optional<std::string> EncodeOthers(char const* part, std::string_view allowed) {
  if (part == nullptr) return {};
  return EncodeOthers(std::string_view(part), allowed);
}

// Of a decoded host. GUri accepts any character in it, also those that begin another part: a
// password with an "@" would continue in the host.
std::string NormalizeHost(std::string const& host) {
  auto const hasOnly = [](std::string_view part, std::string_view others) {
    return std::all_of(part.begin(), part.end(),
                       [&](char character) { return IsContained(character, others); });
  };
  bool const isAddress = host.find(':') != std::string::npos;
  std::string const address = isAddress ? host.substr(0, host.find('%')) : host;
  std::string const zone = host.size() > address.size() ? host.substr(address.size() + 1) : "";
  bool const isValid = isAddress
                           ? g_hostname_is_ip_address(address.c_str()) && hasOnly(zone, unreserved)
                           : hasOnly(address, nameCharacters);
  if (!isValid) throw MakeError("host");
  std::string normal;
  for (char const character : address) normal += g_ascii_tolower(character);
  return zone.empty() ? normal : normal + "%25" + zone;
}

using Uri = std::unique_ptr<GUri, void (*)(GUri*)>;

Uri ParseUri(std::string const& text) {
  if (text.find('\0') != std::string::npos) throw MakeError("text");
  GError* error = nullptr;
  Uri uri(g_uri_parse(text.c_str(), flags, &error), g_uri_unref);
  if (!uri) {
    char const* const reason = GetReason(error->code);
    g_error_free(error);
    throw MakeError(reason);
  }
  return uri;
}

char const* GetText(std::optional<std::string> const& part) {
  return part ? part->c_str() : nullptr;
}

}  // namespace

Url Url::Parse(std::string const& text) {
  Uri const uri = ParseUri(text);
  Url url;
  url._scheme = g_uri_get_scheme(uri.get());
  url._user = EncodeOthers(g_uri_get_user(uri.get()), nameCharacters);
  url._password = EncodeOthers(g_uri_get_password(uri.get()), passwordCharacters);
  if (char const* const host = g_uri_get_host(uri.get())) url._host = NormalizeHost(host);
  int const port = g_uri_get_port(uri.get());
  if (port != -1) url._port = static_cast<std::uint16_t>(port);
  url._path = EncodeOthers(std::string_view(g_uri_get_path(uri.get())), pathCharacters);
  // GUri completes an empty path before it removes dot segments, which can leave another one.
  if (url._path.empty()) url._path = g_uri_get_path(ParseUri(url._scheme + ":").get());
  // Without this a path of empty segments would become a host.
  if (!url._host && url._path.starts_with("//")) url._path.insert(0, "/.");
  url._query = EncodeOthers(g_uri_get_query(uri.get()), queryCharacters);
  url._fragment = EncodeOthers(g_uri_get_fragment(uri.get()), queryCharacters);
  return url;
}

std::string Url::ToText() const {
  std::unique_ptr<char, void (*)(void*)> const text(
      g_uri_join_with_user(flags, _scheme.c_str(), GetText(_user), GetText(_password), nullptr,
                           GetText(_host), _port ? *_port : -1, _path.c_str(), GetText(_query),
                           GetText(_fragment)),
      g_free);
  return text.get();
}

std::string Url::ToTextWithoutSecrets() const {
  Url url = *this;
  url._user.reset();
  url._password.reset();
  url._query.reset();
  url._fragment.reset();
  return url.ToText();
}

}  // namespace Support
