#pragma once

#include <nlohmann/json_fwd.hpp>

#include "base/shared.h"
#include "net/socket.h"

// Chooses the sensor that `request` asks for. Exactly one response is written for every request.
//
//   {"sensor": {"hardware": ...}}   the hardware sensor, also where "igel" stands beside it
//   {"sensor": {"igel": ...}}       the IGEL sensor
//   anything else                   {"status": "ErrorNotImplemented"}
//
// The request may nest as deep as a packet is long, and the JSON library copies and prints
// recursively: it is only ever looked at by reference. Throws what `WriteResponse` throws.
void DispatchRequest(Base::Shared<Net::Socket> const& socket, nlohmann::json const& request);
