#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Packets that wait to be sent, first in, first out. They lie one after the other in one piece of
// memory, so many small packets cost little more than their bytes.
class PacketBacklog {
 public:
  // The bytes that a packet takes: its length field and its payload.
  static std::size_t GetPacketLength(std::string_view payload) {
    return sizeof(std::uint32_t) + payload.size();
  }

  // The bytes of all packets that wait.
  std::size_t GetLength() const { return _bytes.size() - _start; }
  bool IsEmpty() const { return GetLength() == 0; }

  void Push(std::string_view payload);

  // Removes the first packet and returns its payload. There must be one.
  std::string Pop();

 private:
  std::string _bytes;
  std::size_t _start = 0;  // of the first packet
};
