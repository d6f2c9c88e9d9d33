#include "trace/guid.h"

#include <uuid/uuid.h>

#include <cstddef>

#include "base/exception.h"
#include "trace/field.h"
#include "trace/trace.h"

TRACE_MODULE("guid");

namespace Trace {

Guid Guid::Generate() {
  Guid guid;
  uuid_generate_random(guid._bytes.data());
  return guid;
}

Guid Guid::Parse(std::string_view text) {
  Guid guid;
  std::size_t const length = text.size();
  // Tests the length first: uuid_parse ends at a zero byte, which `text` may contain.
  if (length != UUID_STR_LEN - 1 ||
      uuid_parse(std::string(text).c_str(), guid._bytes.data()) != 0) {
    TRACE_ERROR("Not a guid", length);
    throw Base::Exception("Not a guid");
  }
  return guid;
}

std::string Guid::ToText() const {
  std::array<char, UUID_STR_LEN> text{};
  uuid_unparse_lower(_bytes.data(), text.data());
  return text.data();
}

void RenderTraceValue(std::string& out, Guid const& guid) {
  RenderTraceValue(out, std::string_view(guid.ToText()));
}

}  // namespace Trace
