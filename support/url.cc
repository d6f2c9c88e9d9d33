#include "support/url.h"

#include <glib.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

#include "support/error.h"

// GUri parses and composes. With G_URI_FLAGS_ENCODED it leaves percent-encoding in the parts and
// removes dot segments after it has normalised the encoding. What GUri does not normalise is done
// here: the case of hosts, and characters that a part may not contain.

namespace Support {

namespace {

constexpr auto flags = static_cast<GUriFlags>(G_URI_FLAGS_ENCODED | G_URI_FLAGS_HAS_PASSWORD |
                                              G_URI_FLAGS_SCHEME_NORMALIZE);

// What a part may contain besides letters, digits and percent-encoding (RFC 3986, appendix A).
constexpr std::string_view unreserved = "-._~";
constexpr std::string_view subDelims = "!$&'()*+,;=";

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

bool IsContained(char character, std::string_view allowed) {
  return g_ascii_isalnum(character) || unreserved.find(character) != std::string_view::npos ||
         subDelims.find(character) != std::string_view::npos ||
         allowed.find(character) != std::string_view::npos;
}

std::string EncodeByte(char byte) {
  static constexpr std::string_view digits = "0123456789ABCDEF";
  auto const value = static_cast<unsigned char>(byte);
  return {'%', digits[value / 16], digits[value % 16]};
}

// Of `part`, whose percent-encoding is well-formed.
std::string NormalizeEncoding(std::string_view part, std::string_view allowed) {
  std::string normal;
  for (std::size_t i = 0; i < part.size(); ++i) {
    if (part[i] != '%') {
      normal += IsContained(part[i], allowed) ? std::string(1, part[i]) : EncodeByte(part[i]);
      continue;
    }
    int const high = g_ascii_xdigit_value(part[i + 1]);
    int const low = g_ascii_xdigit_value(part[i + 2]);
    i += 2;
    auto const byte = static_cast<char>(high * 16 + low);
    bool const isUnreserved =
        g_ascii_isalnum(byte) || unreserved.find(byte) != std::string_view::npos;
    normal += isUnreserved ? std::string(1, byte) : EncodeByte(byte);
  }
  return normal;
}

std::optional<std::string> NormalizeEncoding(char const* part, std::string_view allowed) {
  if (part == nullptr) return {};
  return NormalizeEncoding(std::string_view(part), allowed);
}

// A host name is lower case, and so is an IPv6 address before its zone.
std::string NormalizeHost(std::string host) {
  bool const isAddress = host.find(':') != std::string::npos;
  std::size_t const end = isAddress ? std::min(host.find('%'), host.size()) : host.size();
  for (std::size_t i = 0; i < end; ++i) host[i] = g_ascii_tolower(host[i]);
  return host;
}

char const* GetText(std::optional<std::string> const& part) {
  return part ? part->c_str() : nullptr;
}

}  // namespace

Url Url::Parse(std::string const& text) {
  if (text.find('\0') != std::string::npos) throw MakeError("text");
  GError* error = nullptr;
  std::unique_ptr<GUri, void (*)(GUri*)> const uri(g_uri_parse(text.c_str(), flags, &error),
                                                   g_uri_unref);
  if (!uri) {
    char const* const reason = GetReason(error->code);
    g_error_free(error);
    throw MakeError(reason);
  }
  Url url;
  url._scheme = g_uri_get_scheme(uri.get());
  url._user = NormalizeEncoding(g_uri_get_user(uri.get()), "");
  url._password = NormalizeEncoding(g_uri_get_password(uri.get()), ":");
  if (char const* const host = g_uri_get_host(uri.get())) url._host = NormalizeHost(host);
  int const port = g_uri_get_port(uri.get());
  if (port != -1) url._port = static_cast<std::uint16_t>(port);
  url._path = NormalizeEncoding(std::string_view(g_uri_get_path(uri.get())), ":@/");
  // Without this a path of empty segments would become a host.
  if (!url._host && url._path.starts_with("//")) url._path.insert(0, "/.");
  url._query = NormalizeEncoding(g_uri_get_query(uri.get()), ":@/?");
  url._fragment = NormalizeEncoding(g_uri_get_fragment(uri.get()), ":@/?");
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
