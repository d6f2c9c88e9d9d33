#pragma once

#include <nlohmann/json_fwd.hpp>

#include "base/shared.h"
#include "net/socket.h"

// Asks the sensor that `request` names and writes its response. Writes exactly one response for
// every request.
//
//   {"sensor": {"hardware": ...}}   the hardware sensor, also where "igel" stands beside it
//   {"sensor": {"igel": ...}}       the IGEL sensor
//   anything else                   {"status": "ErrorNotImplemented"}
//
// Blocks while the sensor runs. A Base::Exception from the sensor becomes a line and an
// "ErrorGeneric" response with its text. Throws what `WriteResponse` throws.
void DispatchRequest(Base::Shared<Net::Socket> const& socket, nlohmann::json const& request);
