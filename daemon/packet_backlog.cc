#include "daemon/packet_backlog.h"

#include <array>
#include <bit>

void PacketBacklog::Push(std::string_view payload) {
  auto const length = static_cast<std::uint32_t>(payload.size());
  auto const field = std::bit_cast<std::array<char, sizeof length>>(length);
  _bytes.append(field.data(), field.size()).append(payload);
}

std::string PacketBacklog::Pop() {
  std::array<char, sizeof(std::uint32_t)> field{};
  _start += _bytes.copy(field.data(), field.size(), _start);
  std::string payload = _bytes.substr(_start, std::bit_cast<std::uint32_t>(field));
  _start += payload.size();
  // Moving the rest only once half of the memory is free moves each byte once on average.
  if (_start >= _bytes.size() / 2) {
    _bytes.erase(0, _start);
    _start = 0;
  }
  return payload;
}
