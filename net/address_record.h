#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "net/address.h"

// Addresses as the kernel's records, sockaddr_in and the like.

namespace Net {

// Copies the bytes, because the storage holds no object of that type. The part of the record that a
// short address lacks is zero.
template <typename Record>
Record ReadRecord(Address const& address) {
  Record record{};
  std::memcpy(&record, address.GetData(),
              std::min<std::size_t>(sizeof record, address.GetLength()));
  return record;
}

template <typename Record>
Address FromRecord(Record const& record, std::size_t length = sizeof(Record)) {
  return Address(&record, length);
}

}  // namespace Net
