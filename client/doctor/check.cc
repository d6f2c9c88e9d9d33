#include "client/doctor/check.h"

#include <array>
#include <cstddef>

std::string_view GetStateName(CheckState state) {
  constexpr auto names =
      std::to_array<std::string_view>({"ok", "warning", "failed", "not-checked"});
  return names.at(static_cast<std::size_t>(state));
}

nlohmann::json ToJson(CheckResult const& result) {
  nlohmann::json json{
      {"name", result.name}, {"state", GetStateName(result.state)}, {"sentence", result.sentence}};
  if (!result.facts.empty()) json["facts"] = result.facts;
  if (result.problem) json["problem"] = result.problem->ToJson();
  return json;
}
