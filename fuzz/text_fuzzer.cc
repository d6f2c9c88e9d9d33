#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/exception.h"
#include "base/string_conversion.h"
#include "net/address.h"
#include "trace/guid.h"
#include "trace/hex.h"
#include "trace/time_text.h"
#include "utilities/arguments/arguments.h"

// The readers of addresses, hexadecimal text, GUIDs, times and UTF-8: a value that was read from
// any text is written as a text that reads as the same value. A reader refuses other texts by a
// Base::Exception and nothing else.

namespace {

void Require(bool condition) {
  if (!condition) __builtin_trap();
}

template <typename Check>
void CheckAccepted(Check check) {
  try {
    check();
  } catch (Base::Exception const&) {
    // The reader refuses the text.
  }
}

void CheckAddress(Net::Address const& address) {
  Net::Address const again = Net::Address::FromText(address.ToText());
  Require(again.ToText() == address.ToText());
  // An AF_UNIX address that is read from text may have another length than the original.
  if (address.GetFamily() == AF_UNIX) return;
  Require(again.GetLength() == address.GetLength());
  Require(std::memcmp(again.GetData(), address.GetData(), address.GetLength()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  static_cast<void>(argc);
  static_cast<void>(argv);
  char const* const arguments[] = {"fuzzer", "--trace-level=-1"};
  ParseArguments(2, arguments);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  CheckAccepted([&] { CheckAddress(Net::Address::FromText(text)); });
  if (size <= Net::Address::maxLength) CheckAddress(Net::Address(data, size));
  CheckAccepted([&] {
    auto const bytes = Trace::FromHex(text);
    std::string const again = Trace::ToHex(bytes.GetSpan());
    Require(again.size() == size && strncasecmp(again.c_str(), text.data(), size) == 0);
  });
  CheckAccepted([&] {
    std::string const again = Trace::Guid::Parse(text).ToText();
    Require(again.size() == size && strncasecmp(again.c_str(), text.data(), size) == 0);
  });
  CheckAccepted([&] {
    auto const time = Trace::ParseTimePoint(text);
    std::string again;
    Trace::AppendTimePoint(again, time);
    Require(Trace::ParseTimePoint(again) == std::chrono::floor<std::chrono::milliseconds>(time));
  });
  std::wstring const wide = Base::ToWide(text);
  std::string const utf8 = Base::ToUtf8(wide);
  Require(Base::ToWide(utf8) == wide);
  return 0;
}
