#pragma once

#include <array>
#include <compare>
#include <string>
#include <string_view>

namespace Trace {

// A globally unique identifier (RFC 4122), in the order of its text; a plain value.
class Guid {
 public:
  // All zero.
  Guid() = default;

  explicit Guid(std::array<unsigned char, 16> const& bytes) : _bytes(bytes) {}

  // A random one (version 4).
  static Guid Generate();

  // Reads "0b9f4a0e-6c1d-4c5e-9d5b-0f6a2d3c4b5a", in upper or lower case, without braces. For any
  // other text it logs an ERROR line and throws Base::Exception "Not a guid".
  static Guid Parse(std::string_view text);

  // The text that `Parse` reads, in lower case.
  std::string ToText() const;

  std::array<unsigned char, 16> const& GetBytes() const { return _bytes; }

  // NOLINTNEXTLINE(modernize-use-nullptr): the check takes the operator for a zero
  auto operator<=>(Guid const&) const = default;

 private:
  std::array<unsigned char, 16> _bytes{};
};

// Its text, quoted.
void RenderTraceValue(std::string& out, Guid const& guid);

}  // namespace Trace
