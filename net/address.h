#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Net {

// A socket address as the bytes that bind(2), connect(2) and accept(2) take and return; a plain
// value. The layouts are the kernel's: unix(7), ip(7), ipv6(7).
//
// Errors: each after an ERROR line: Base::Exception "Invalid Address", "Unknown Address",
//         "Unhandled Address Family"; Base::OverflowException. A literal with a zero byte is
//         invalid, a name or service with one unknown.
class Address {
 public:
  static constexpr std::uint32_t maxLength = 112;

  // No address, length 0.
  Address() = default;

  // A copy of `length` bytes. Throws OverflowException when they are more than `maxLength`.
  Address(void const* bytes, std::size_t length);

  // AF_UNIX: the first 107 characters of a path. The length is always that of the full record.
  static Address FromUnixPath(std::string_view path);

  // AF_UNIX: the first 106 characters of a name in the abstract namespace.
  static Address FromUnixAbstract(std::string_view name);

  // AF_UNIX, as people write it. A text with a "/" is a path, any other a name in the abstract
  // namespace, without its leading "@". Throws "Invalid Address" for a text that is empty or too
  // long.
  static Address FromUnixText(std::string_view text);

  // Any text that `ToText` writes, and texts that mean the same: longer forms of an IPv6 address,
  // leading zeros, needless escapes, the bytes of a family with a text of its own. Ports and scopes
  // are numbers. Throws "Invalid Address" for any other text, such as a host name.
  static Address FromText(std::string_view text);

  // The wildcard address of AF_INET or AF_INET6.
  static Address Any(int family, std::uint16_t port);

  // A numeric address of AF_INET or AF_INET6.
  static Address FromLiteral(int family, std::string const& text, std::uint16_t port);

  // The resolver's first answer for `name`, with `port`. When `service` is empty, port 80 stands
  // for "http" and port 443 for "https". Throws "Unknown Address".
  static Address Resolve(std::string const& name, std::uint32_t port, std::string service = {});

  // "name:port", split at the first ":". The port is a decimal number of up to 64 bits; what
  // follows its digits is ignored. Its low 32 bits choose the service, its low 16 go into the
  // address. Throws "Invalid Address" when the port has no digits or too many, else as `Resolve`.
  static Address FromNameAndPort(std::string_view nameAndPort, std::string const& service = {});

  // A copy whose address bits after the first `prefixBits` are zero; the port and all else stay.
  // The empty address for families other than AF_INET and AF_INET6. Throws "Invalid Address" for
  // more bits than the family has.
  Address GetNetwork(unsigned prefixBits) const;

  // The name of the last local interface that has this address; empty if there is none. Only an
  // address with port 0, and with the interface's own scope, can match. Throws ExceptionPosix
  // "Failed to list network interfaces".
  std::string GetInterfaceName() const;

  sockaddr const* GetData() const { return reinterpret_cast<sockaddr const*>(_storage.data()); }
  socklen_t GetLength() const { return _length; }

  // The path of an AF_UNIX address; empty for an abstract name and for any other address.
  std::string GetUnixPath() const;

  // AF_UNSPEC for an address without one.
  int GetFamily() const;

  // Two addresses have the same text only when the kernel treats them as the same address.
  //
  //   unix:/run/x            a path; a "@" at its beginning is escaped
  //   unix:@name             a name in the abstract namespace
  //   unix:                  unnamed
  //   192.0.2.1:80           address and port
  //   [2001:db8::1]:443      the same; with a scope [fe80::1%2]:443
  //   17:11000300            any other: its family's number, and its bytes in hexadecimal
  //
  // In names, quotes, backslashes and all that is not printable ASCII are escaped as \xNN, because
  // peers choose the names and must not forge trace lines.
  std::string ToText() const;

 private:
  alignas(sockaddr_storage) std::array<unsigned char, maxLength> _storage{};
  std::uint32_t _length = 0;
};

void RenderTraceValue(std::string& out, Address const& address);

}  // namespace Net
