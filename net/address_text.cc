#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/exception.h"
#include "base/text.h"
#include "net/address.h"
#include "net/address_record.h"
#include "trace/hex.h"
#include "trace/trace.h"

TRACE_MODULE("address");

// Addresses to text and back.
//
// Each family has a text of its own, which shows the fields of its record. A record that does not
// have the family's length, or has something in a field that the text leaves out, such as an IPv6
// flow label, gets the text of any other family instead: its bytes in hexadecimal. So no two
// different addresses share a text, which comparing addresses by their texts relies on.
//
// An AF_UNIX path is the exception that the kernel makes, too: bytes after the path's terminating
// zero do not count, as long as they are zeros. A path has therefore one text at any length.
//
// Parsing takes more texts than `ToText` writes, but no text for two addresses: the prefix "unix:",
// the bracket of IPv6 and the lone number of a family tell the forms apart. A parser returns an
// empty result when the text is no address; `FromText` alone logs and throws. The system's parsers
// stop at a zero byte, so a text with one is refused before any of them sees it.

namespace Net {

namespace {

constexpr std::string_view unixPrefix = "unix:";
constexpr std::size_t pathOffset = offsetof(sockaddr_un, sun_path);

void AppendEscaped(std::string& out, char c) {
  auto const byte = static_cast<unsigned char>(c);
  out.append("\\x").append(Trace::ToHex(std::span(&byte, 1)));
}

void AppendName(std::string& out, std::string_view name) {
  for (char const c : name) {
    bool const isPlain = c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
    if (isPlain) {
      out.push_back(c);
    } else {
      AppendEscaped(out, c);
    }
  }
}

// Empty, as are `IPv4Text` and `IPv6Text`, for a record whose text would leave something out.
std::optional<std::string> UnixText(Address const& address) {
  std::string text(unixPrefix);
  if (address.GetLength() <= pathOffset) return text;
  auto const record = ReadRecord<sockaddr_un>(address);
  if (address.GetLength() > sizeof record) return {};
  std::string_view path(record.sun_path, address.GetLength() - pathOffset);
  if (path.front() == '\0') {
    AppendName(text.append("@"), path.substr(1));
    return text;
  }
  std::size_t const end = std::min(path.find('\0'), path.size());
  if (path.find_first_not_of('\0', end) != std::string_view::npos) return {};
  path = path.substr(0, end);
  if (path.front() == '@') {
    AppendEscaped(text, '@');
    path.remove_prefix(1);
  }
  AppendName(text, path);
  return text;
}

template <typename Binary>
std::string LiteralText(int family, Binary const& ip) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(family, &ip, text.data(), text.size());
  return text.data();
}

std::optional<std::string> IPv4Text(Address const& address) {
  auto const record = ReadRecord<sockaddr_in>(address);
  bool const isPlain = address.GetLength() == sizeof record &&
                       std::ranges::all_of(record.sin_zero, [](auto byte) { return byte == 0; });
  if (!isPlain) return {};
  return LiteralText(AF_INET, record.sin_addr) + ":" + std::to_string(ntohs(record.sin_port));
}

std::optional<std::string> IPv6Text(Address const& address) {
  auto const record = ReadRecord<sockaddr_in6>(address);
  bool const isPlain = address.GetLength() == sizeof record && record.sin6_flowinfo == 0;
  if (!isPlain) return {};
  std::string const scope =
      record.sin6_scope_id == 0 ? "" : "%" + std::to_string(record.sin6_scope_id);
  return "[" + LiteralText(AF_INET6, record.sin6_addr) + scope +
         "]:" + std::to_string(ntohs(record.sin6_port));
}

std::string BytesText(Address const& address) {
  auto const* const bytes = reinterpret_cast<unsigned char const*>(address.GetData());
  return std::to_string(address.GetFamily()) + ":" +
         Trace::ToHex(std::span(bytes, address.GetLength()));
}

std::optional<std::string> Unescape(std::string_view text) {
  constexpr std::string_view escape = "\\x";
  constexpr std::size_t digits = 2;
  std::string name;
  while (!text.empty()) {
    if (text.front() != escape.front()) {
      name.push_back(text.front());
      text.remove_prefix(1);
      continue;
    }
    if (!text.starts_with(escape) || text.size() < escape.size() + digits) return {};
    unsigned char byte = 0;
    char const* const end = text.data() + escape.size() + digits;
    if (std::from_chars(end - digits, end, byte, 16).ptr != end) return {};
    name.push_back(static_cast<char>(byte));
    text.remove_prefix(escape.size() + digits);
  }
  return name;
}

std::optional<Address> ParseUnix(std::string_view text) {
  sockaddr_un record{};
  record.sun_family = AF_UNIX;
  if (text.empty()) return FromRecord(record, pathOffset);
  bool const isAbstract = text.front() == '@';
  auto const name = Unescape(text.substr(isAbstract ? 1 : 0));
  // The kernel accepts names that fill the record; such a path has no terminating zero.
  std::span const room = std::span(record.sun_path).subspan(isAbstract ? 1 : 0);
  if (!name || name->size() > room.size()) return {};
  if (!isAbstract && name->find('\0') != std::string::npos) return {};
  std::ranges::copy(*name, room.begin());
  return FromRecord(record, isAbstract ? pathOffset + 1 + name->size() : sizeof record);
}

std::optional<Address> ParseIPv4(std::string_view ip, std::uint16_t port) {
  sockaddr_in record{};
  record.sin_family = AF_INET;
  record.sin_port = htons(port);
  if (inet_pton(AF_INET, std::string(ip).c_str(), &record.sin_addr) != 1) return {};
  return FromRecord(record);
}

std::optional<Address> ParseIPv6(std::string_view ip, std::uint16_t port) {
  sockaddr_in6 record{};
  record.sin6_family = AF_INET6;
  record.sin6_port = htons(port);
  if (auto const percent = ip.find('%'); percent != std::string_view::npos) {
    auto const scope = Base::ParseNumber<std::uint32_t>(ip.substr(percent + 1));
    if (!scope) return {};
    record.sin6_scope_id = scope.Get();
    ip = ip.substr(0, percent);
  }
  if (inet_pton(AF_INET6, std::string(ip).c_str(), &record.sin6_addr) != 1) return {};
  return FromRecord(record);
}

std::optional<Address> ParseBytes(sa_family_t family, std::string_view digits) {
  std::array<unsigned char, Address::maxLength> bytes{};
  try {
    Address const address(bytes.data(), Trace::FromHex(digits, bytes));
    if (address.GetFamily() == family) return address;
  } catch (Base::Exception const&) {
    // Already logged.
  }
  return {};
}

std::optional<Address> Parse(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return {};
  if (text.starts_with(unixPrefix)) return ParseUnix(text.substr(unixPrefix.size()));
  auto const colon = text.rfind(':');
  if (colon == std::string_view::npos) return {};
  std::string_view const host = text.substr(0, colon);
  std::string_view const rest = text.substr(colon + 1);
  if (auto const family = Base::ParseNumber<sa_family_t>(host)) {
    return ParseBytes(family.Get(), rest);
  }
  auto const port = Base::ParseNumber<std::uint16_t>(rest);
  if (!port) return {};
  if (!host.starts_with('[')) return ParseIPv4(host, port.Get());
  if (!host.ends_with(']')) return {};
  return ParseIPv6(host.substr(1, host.size() - 2), port.Get());
}

}  // namespace

Address Address::FromText(std::string_view text) {
  if (auto const address = Parse(text)) return *address;
  TRACE_ERROR("Address text is invalid", text);
  throw Base::Exception("Invalid Address");
}

std::string Address::ToText() const {
  std::optional<std::string> text;
  switch (GetFamily()) {
    case AF_UNIX:
      text = UnixText(*this);
      break;
    case AF_INET:
      text = IPv4Text(*this);
      break;
    case AF_INET6:
      text = IPv6Text(*this);
      break;
    default:
      break;
  }
  return text ? *text : BytesText(*this);
}

void RenderTraceValue(std::string& out, Address const& address) {
  Trace::RenderTraceValue(out, std::string_view(address.ToText()));
}

}  // namespace Net
