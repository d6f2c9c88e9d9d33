#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Support {

// A URL of RFC 3986, absolute and normalised:
//
//   - scheme and host are lower case; an internationalised host is in its ASCII form (IDNA)
//   - percent-encoding is upper case; unreserved characters are not encoded, characters that a URL
//     may not contain are
//   - "." and ".." segments of the path are removed
//   - of http, https, ws, wss and other schemes that GLib knows, the default port is left out, and
//     an empty path becomes "/"
//
// Two texts of one URL thus have the same normalised text.
//
// Threads: any, one at a time.
class Url {
 public:
  // Throws Support::Error "url-invalid" when `text` is none. Its field "reason" is the wrong part:
  // "scheme" (also when it is missing), "user", "password", "host", "port", "path", "query",
  // "fragment", or "text" for a zero byte. The error holds nothing of `text`, which may hold
  // secrets.
  // Deliberate: refuses a host with a percent-encoded character that a host cannot contain plain.
  static Url Parse(std::string const& text);

  bool operator==(Url const& other) const = default;

  // The parts, normalised and still percent-encoded, without the characters that separate them. An
  // empty part differs from a missing one: "http://h/?" has an empty query.
  std::string const& GetScheme() const { return _scheme; }
  std::optional<std::string> const& GetUser() const { return _user; }
  std::optional<std::string> const& GetPassword() const { return _password; }
  // Without the brackets of an IPv6 address, whose zone follows "%25".
  std::optional<std::string> const& GetHost() const { return _host; }
  // The scheme's default port when the text has none; nothing when the scheme has none either.
  std::optional<std::uint16_t> GetPort() const { return _port; }
  std::string const& GetPath() const { return _path; }
  std::optional<std::string> const& GetQuery() const { return _query; }
  std::optional<std::string> const& GetFragment() const { return _fragment; }

  // The whole normalised URL. Parse accepts it and returns the same URL.
  std::string ToText() const;

  // The same without user, password, query and fragment. The path stays as it is.
  std::string ToTextWithoutSecrets() const;

 private:
  Url() = default;

  std::string _scheme;
  std::optional<std::string> _user;
  std::optional<std::string> _password;
  std::optional<std::string> _host;
  std::optional<std::uint16_t> _port;
  std::string _path;
  std::optional<std::string> _query;
  std::optional<std::string> _fragment;
};

}  // namespace Support
