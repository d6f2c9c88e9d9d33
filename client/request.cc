#include "client/request.h"

#include <cstddef>
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/exception.h"
#include "base/shared.h"
#include "client/exchange.h"
#include "client/output.h"

namespace {

// Whether valid JSON is small enough to be parsed and printed: printing is recursive, and its
// indentation can be much longer than the text. The daemon's responses have only a few levels.
bool IsSmall(std::string_view json) {
  constexpr int maxDepth = 20;
  constexpr int maxValues = 1'000'000;
  int depth = 0;
  int values = 1;
  bool isInText = false;
  for (std::size_t i = 0; i < json.size() && depth <= maxDepth && values <= maxValues; ++i) {
    char const c = json[i];
    if (c == '"') {
      isInText = !isInText;
    } else if (isInText) {
      if (c == '\\') ++i;
    } else if (c == '[' || c == '{') {
      ++depth;
      ++values;
    } else if (c == ']' || c == '}') {
      --depth;
    } else if (c == ',') {
      ++values;
    }
  }
  return depth <= maxDepth && values <= maxValues;
}

int PrintResponse(std::string const& text, bool compact) {
  nlohmann::json const response = ParseResponse(text);
  if (response.is_null())
    return ExitWithError(ExitStatus::NoResponse, "The daemon's response is broken");
  std::cout << EscapeControls(response.dump(compact ? -1 : 2)) << "\n" << std::flush;
  if (!std::cout) return ExitWithError(ExitStatus::NoResponse, "Cannot print the response");
  auto const status = response["status"].get<std::string>();
  if (status == "Success") return static_cast<int>(ExitStatus::Success);
  bool const hasMessage =
      response.contains("error_message") && response["error_message"].is_string();
  return ExitWithError(ExitStatus::OtherStatus,
                       "The daemon answered " + status +
                           (hasMessage ? ": " + response["error_message"].get<std::string>() : ""));
}

}  // namespace

nlohmann::json ParseResponse(std::string const& text) {
  // Without a callback: with one, the time to parse grows with the square of the length.
  auto response = IsSmall(text) ? nlohmann::json::parse(text, nullptr, false) : nlohmann::json();
  bool const isValid = response.contains("status") && response["status"].is_string();
  return isValid ? std::move(response) : nlohmann::json();
}

std::string SendRequest(CommandLine const& commandLine) {
  auto const exchange = Base::MakeShared<Exchange>(commandLine.address, commandLine.request);
  std::optional<Exchange::Outcome> outcome = exchange->Run(commandLine.timeout);
  if (!outcome) {
    throw Base::Exception("No response within " + std::to_string(commandLine.timeout.count()) +
                          " seconds");
  }
  if (!outcome->isResponse) throw Base::Exception(outcome->text);
  return std::move(outcome->text);
}

int RunRequest(CommandLine const& commandLine) {
  try {
    std::string const text = SendRequest(commandLine);
    return PrintResponse(text, commandLine.compact);
  } catch (std::exception const& err) {
    return ExitWithError(ExitStatus::NoResponse, err.what());
  }
}
