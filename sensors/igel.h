#pragma once

#include "base/shared.h"
#include "net/socket.h"

// Answers an "igel" request with the management certificates of an IGEL OS device: those of the
// directory that the setting "igel-management-cert-path" names, default
// "/wfs/igel-rmagent/trust-store", in the order in which it yields them. Blocks while a command
// runs for each. Throws what `WriteResponse` throws.
void RunIgelSensor(Base::Shared<Net::Socket> const& socket);
