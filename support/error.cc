#include "support/error.h"

#include <exception>
#include <utility>

namespace Support {

Error::Error(std::string code, std::string message, std::string advice)
    : Exception(std::move(message)), _code(std::move(code)), _advice(std::move(advice)) {}

Error Error::FromException(std::exception const& exception) {
  if (auto const* error = dynamic_cast<Error const*>(&exception)) return *error;
  if (auto const* posix = dynamic_cast<Base::ExceptionPosix const*>(&exception))
    return Error("system-call-failed", posix->what()).With("errno", posix->GetErrorCode());
  return {"failed", exception.what()};
}

Error& Error::With(std::string const& name, nlohmann::json value) {
  _fields[name] = std::move(value);
  return *this;
}

Error& Error::Because(std::exception const& cause) {
  _cause = std::make_shared<Error const>(FromException(cause));
  return *this;
}

nlohmann::json Error::ToJson() const {
  nlohmann::json json{{"code", _code}, {"message", what()}};
  if (!_advice.empty()) json["advice"] = _advice;
  if (!_fields.empty()) json["fields"] = _fields;
  if (_cause) json["cause"] = _cause->ToJson();
  return json;
}

std::string Error::ToText(int indent) const {
  std::string const margin(static_cast<std::size_t>(indent), ' ');
  std::string text = margin + what() + "\n";
  for (auto const& [name, value] : _fields.items()) {
    text.append(margin).append("  ").append(name).append(": ");
    text.append(value.is_string() ? value.get<std::string>() : value.dump()).append("\n");
  }
  if (!_advice.empty()) text += margin + "  Advice: " + _advice + "\n";
  if (_cause) text += margin + "  Cause:\n" + _cause->ToText(indent + 4);
  return text;
}

}  // namespace Support
