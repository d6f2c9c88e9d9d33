#pragma once

#include <nlohmann/json_fwd.hpp>

// Returns the response to a "hardware" request: the BIOS serial number as dmidecode(8) prints it,
// without white space at its ends; "ErrorGeneric" when the command fails, is stopped or prints
// nothing. Blocks while the command runs.
nlohmann::json AskHardware();
