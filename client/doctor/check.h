#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "support/error.h"

// "ok", "warning", "failed", "not-checked" in JSON.
enum class CheckState { Ok, Warning, Failed, NotChecked };

std::string_view GetStateName(CheckState state);

// What one check of `ktclientctl doctor` has found.
struct CheckResult {
  std::string name;  // stable, such as "socket"; docs/doctor.md lists all
  CheckState state = CheckState::Ok;
  std::string sentence;  // for people; holds text from outside, which may have control characters
  nlohmann::json facts = nlohmann::json::object();  // of a check that is ok

  // Set unless the state is `Ok`. Its message is `sentence`, its fields are the facts. The code and
  // the advice are those of docs/doctor.md, in which each "{field}" is replaced.
  std::optional<Support::Error> problem;
};

// {"name": ..., "state": ..., "sentence": ...} and "facts" or "problem", the latter as
// `Support::Error::ToJson` has it.
nlohmann::json ToJson(CheckResult const& result);
