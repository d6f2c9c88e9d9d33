#pragma once

#include <nlohmann/json_fwd.hpp>

// Returns the response to a "hardware" request: the BIOS serial number as dmidecode(8) prints it,
// or "ErrorGeneric" where the command fails or prints nothing. Blocks while the command runs.
nlohmann::json AskHardware();
