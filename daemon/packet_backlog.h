#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Packets that wait to be sent, first in, first out, one after the other in one piece of memory:
// many small ones cost little more than their bytes.
class PacketBacklog {
 public:
  // What a packet takes: its length field and its payload.
  static std::size_t GetPacketLength(std::string_view payload) {
    return sizeof(std::uint32_t) + payload.size();
  }

  // The length of all packets that wait.
  std::size_t GetLength() const { return _bytes.size() - _start; }
  bool IsEmpty() const { return GetLength() == 0; }

  void Push(std::string_view payload);

  // The payload of the first packet; there must be one.
  std::string Pop();

 private:
  std::string _bytes;
  std::size_t _start = 0;  // of the first packet
};
