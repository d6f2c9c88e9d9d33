#include "net/address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

#include "base/exception.h"
#include "net/address_record.h"
#include "trace/trace.h"

TRACE_MODULE("address");

namespace Net {

namespace {

constexpr std::size_t maxPathLength = sizeof(sockaddr_un::sun_path) - 1;
constexpr std::size_t maxAbstractLength = sizeof(sockaddr_un::sun_path) - 2;

Address FromIPv4(in_addr ip, std::uint16_t port) {
  sockaddr_in record{};
  record.sin_family = AF_INET;
  record.sin_port = htons(port);
  record.sin_addr = ip;
  return FromRecord(record);
}

Address FromIPv6(in6_addr const& ip, std::uint16_t port) {
  sockaddr_in6 record{};
  record.sin6_family = AF_INET6;
  record.sin6_port = htons(port);
  record.sin6_addr = ip;
  return FromRecord(record);
}

[[noreturn]] void ThrowUnhandledFamily(int family) {
  TRACE_ERROR("Unhandled address family", family);
  throw Base::Exception("Unhandled Address Family");
}

// The system's parsers stop at a zero byte and would take what comes before it.
bool HasZeroByte(std::string_view text) { return text.find('\0') != std::string_view::npos; }

template <typename Binary>
Binary ParseLiteral(int family, std::string const& ip, std::string_view message) {
  Binary binary{};
  int const result = HasZeroByte(ip) ? 0 : inet_pton(family, ip.c_str(), &binary);
  if (result == 0) {
    TRACE_ERROR(message, ip);
    throw Base::Exception("Invalid Address");
  }
  if (result == -1) {
    int const errorCode = errno;
    TRACE_ERROR(message, ip, errorCode);
    throw Base::ExceptionPosix("Invalid Address", errorCode);
  }
  return binary;
}

void ClearAfter(std::span<unsigned char> bytes, unsigned prefixBits) {
  if (prefixBits > bytes.size() * 8) {
    TRACE_ERROR("Network prefix is too long", prefixBits);
    throw Base::Exception("Invalid Address");
  }
  auto const whole = prefixBits / 8;
  auto const rest = bytes.subspan(whole);
  if (rest.empty()) return;
  rest[0] = static_cast<unsigned char>(rest[0] & (0xFF00U >> (prefixBits % 8)));
  std::ranges::fill(rest.subspan(1), static_cast<unsigned char>(0));
}

}  // namespace

Address::Address(void const* bytes, std::size_t length) {
  if (length > maxLength) {
    TRACE_ERROR("Address length exceeds maximum", length, maxLength);
    throw Base::OverflowException();
  }
  if (length > 0) std::memcpy(_storage.data(), bytes, length);
  _length = static_cast<std::uint32_t>(length);
}

Address Address::FromUnixPath(std::string_view path) {
  sockaddr_un record{};
  record.sun_family = AF_UNIX;
  path.copy(record.sun_path, maxPathLength);
  return FromRecord(record);
}

Address Address::FromUnixAbstract(std::string_view name) {
  sockaddr_un record{};
  record.sun_family = AF_UNIX;
  std::size_t const length = name.copy(record.sun_path + 1, maxAbstractLength);
  return FromRecord(record, offsetof(sockaddr_un, sun_path) + 1 + length);
}

Address Address::FromUnixText(std::string_view text) {
  bool const isPath = text.find('/') != std::string_view::npos;
  std::string_view name = text;
  if (!isPath && name.starts_with('@')) name.remove_prefix(1);
  if (name.empty() || name.size() > (isPath ? maxPathLength : maxAbstractLength)) {
    TRACE_ERROR("Unix address is empty or too long", text);
    throw Base::Exception("Invalid Address");
  }
  return isPath ? FromUnixPath(name) : FromUnixAbstract(name);
}

Address Address::Any(int family, std::uint16_t port) {
  switch (family) {
    case AF_INET:
      return FromIPv4({htonl(INADDR_ANY)}, port);
    case AF_INET6:
      return FromIPv6(in6addr_any, port);
    default:
      ThrowUnhandledFamily(family);
  }
}

Address Address::FromLiteral(int family, std::string const& text, std::uint16_t port) {
  switch (family) {
    case AF_INET:
      return FromIPv4(ParseLiteral<in_addr>(family, text, "IPv4 address is invalid"), port);
    case AF_INET6:
      return FromIPv6(ParseLiteral<in6_addr>(family, text, "IPv6 address invalid"), port);
    default:
      ThrowUnhandledFamily(family);
  }
}

Address Address::Resolve(std::string const& name, std::uint32_t port, std::string service) {
  if (service.empty() && port == 80) service = "http";
  if (service.empty() && port == 443) service = "https";
  addrinfo* found = nullptr;
  char const* const serviceText = service.empty() ? nullptr : service.c_str();
  int const result = HasZeroByte(name) || HasZeroByte(service)
                         ? EAI_NONAME
                         : getaddrinfo(name.c_str(), serviceText, nullptr, &found);
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> const list(found, &freeaddrinfo);
  if (result != 0 || list == nullptr) {
    TRACE_ERROR("Failed to determine address", name);
    throw Base::Exception("Unknown Address");
  }
  Address const address(list->ai_addr, list->ai_addrlen);
  switch (address.GetFamily()) {
    case AF_INET:
      return FromIPv4(ReadRecord<sockaddr_in>(address).sin_addr, static_cast<std::uint16_t>(port));
    case AF_INET6: {
      auto record = ReadRecord<sockaddr_in6>(address);  // whole: it may have a scope
      record.sin6_port = htons(static_cast<std::uint16_t>(port));
      return FromRecord(record);
    }
    default:
      return address;
  }
}

Address Address::FromNameAndPort(std::string_view nameAndPort, std::string const& service) {
  auto const colon = nameAndPort.find(':');
  std::string_view const portString =
      colon == std::string_view::npos ? std::string_view() : nameAndPort.substr(colon + 1);
  std::uint64_t port = 0;
  char const* const end = portString.data() + portString.size();
  if (std::from_chars(portString.data(), end, port).ec != std::errc()) {
    TRACE_ERROR("Failed to parse address", nameAndPort, portString);
    throw Base::Exception("Invalid Address");
  }
  return Resolve(std::string(nameAndPort.substr(0, colon)), static_cast<std::uint32_t>(port),
                 service);
}

Address Address::GetNetwork(unsigned prefixBits) const {
  switch (GetFamily()) {
    case AF_INET: {
      auto record = ReadRecord<sockaddr_in>(*this);
      std::array<unsigned char, sizeof record.sin_addr> bytes{};
      std::memcpy(bytes.data(), &record.sin_addr, bytes.size());
      ClearAfter(bytes, prefixBits);
      std::memcpy(&record.sin_addr, bytes.data(), bytes.size());
      return FromRecord(record);
    }
    case AF_INET6: {
      auto record = ReadRecord<sockaddr_in6>(*this);
      ClearAfter(record.sin6_addr.s6_addr, prefixBits);
      return FromRecord(record);
    }
    default:
      return {};
  }
}

std::string Address::GetInterfaceName() const {
  ifaddrs* found = nullptr;
  if (getifaddrs(&found) == -1) {
    int const error = errno;
    TRACE_ERROR("Failed to list network interfaces", error);
    throw Base::ExceptionPosix("Failed to list network interfaces", error);
  }
  std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> const list(found, &freeifaddrs);
  std::string const text = ToText();
  std::string name;
  for (ifaddrs const* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) continue;
    bool const isIPv6 = entry->ifa_addr->sa_family == AF_INET6;
    Address const address(entry->ifa_addr, isIPv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
    if (address.ToText() == text) name = entry->ifa_name;
  }
  return name;
}

std::string Address::GetUnixPath() const {
  if (GetFamily() != AF_UNIX) return {};
  auto const record = ReadRecord<sockaddr_un>(*this);
  return {record.sun_path, strnlen(record.sun_path, sizeof record.sun_path)};
}

int Address::GetFamily() const {
  sa_family_t family = AF_UNSPEC;
  if (_length >= sizeof family) std::memcpy(&family, _storage.data(), sizeof family);
  return family;
}

}  // namespace Net
