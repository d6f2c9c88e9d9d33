#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

// Returns the advice for a problem with this code; each "{field}" in it is replaced by the field's
// text. docs/doctor.md shows the same table. Throws Base::Exception for an unknown code.
std::string GetAdvice(std::string_view code, nlohmann::json const& fields);
