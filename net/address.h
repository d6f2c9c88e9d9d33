#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Net {

// A socket address as the bytes that bind(2), connect(2) and accept(2) take and give; a plain
// value. Layouts are the kernel's: unix(7), ip(7), ipv6(7).
//
// Errors: ERROR lines before each throw. Base::Exception "Invalid Address", "Unknown Address",
//         "Unhandled Address Family"; Base::OverflowException.
class Address {
 public:
  static constexpr std::uint32_t maxLength = 112;

  // No address, length 0.
  Address() = default;

  // A copy of `length` bytes. Throws OverflowException when they are more than `maxLength`.
  Address(void const* bytes, std::size_t length);

  // AF_UNIX: a path, cut after 107 characters. The length is always that of the full record.
  static Address FromUnixPath(std::string_view path);

  // AF_UNIX: a name in the abstract namespace, cut after 106 characters.
  static Address FromUnixAbstract(std::string_view name);

  // AF_UNIX, as people write it: a path where there is a "/", else a name in the abstract
  // namespace, a leading "@" dropped. Throws "Invalid Address" for a text that is empty or would be
  // cut.
  static Address FromUnixText(std::string_view text);

  // What `ToText` writes, any address; and what means the same, such as longer forms of an IPv6
  // address, leading zeros, escapes that need not be, the bytes of a family with a text of its own.
  // Host names are not resolved, ports and scopes are numbers. Throws "Invalid Address" for any
  // other text, such as a name that is too long.
  static Address FromText(std::string_view text);

  // The wildcard address of AF_INET or AF_INET6.
  static Address Any(int family, std::uint16_t port);

  // An address of AF_INET or AF_INET6 in figures.
  static Address FromLiteral(int family, std::string const& text, std::uint16_t port);

  // Asks the resolver; takes its first answer. Without a service, port 80 asks for "http" and 443
  // for "https". Throws "Unknown Address".
  static Address Resolve(std::string const& name, std::uint32_t port, std::string service = {});

  // "name:port", split at the first ":". The port is a decimal number of up to 64 bits, whatever
  // comes after it: the low 32 bits choose the service, the low 16 go into the address. Throws
  // "Invalid Address" where it has no digits or too many.
  static Address FromNameAndPort(std::string_view nameAndPort, std::string const& service = {});

  // A copy whose address bits after the first `prefixBits` are zero, port and all else kept; the
  // empty address for families other than AF_INET and AF_INET6. Throws "Invalid Address" for more
  // bits than the family has.
  Address GetNetwork(unsigned prefixBits) const;

  // The name of the local interface that carries this address, the last of several; empty if none.
  // The port must be 0, as that of an interface's address is, and the scope its own. Throws
  // ExceptionPosix "Failed to list network interfaces".
  std::string GetInterfaceName() const;

  sockaddr const* GetData() const { return reinterpret_cast<sockaddr const*>(_storage.data()); }
  socklen_t GetLength() const { return _length; }

  // AF_UNSPEC for an address without one.
  int GetFamily() const;

  // Two addresses have one text only where they are one to the kernel.
  //
  //   unix:/run/x            a path; a "@" at its beginning is escaped
  //   unix:@name             a name in the abstract namespace
  //   unix:                  unnamed
  //   192.0.2.1:80           address and port
  //   [2001:db8::1]:443      the same; with a scope [fe80::1%2]:443
  //   17:11000300            any other: its family's number, and its bytes in hexadecimal
  //
  // What is not printable ASCII, quotes and backslashes are escaped as \xNN in names: peers choose
  // them.
  std::string ToText() const;

 private:
  alignas(sockaddr_storage) std::array<unsigned char, maxLength> _storage{};
  std::uint32_t _length = 0;
};

void RenderTraceValue(std::string& out, Address const& address);

}  // namespace Net
