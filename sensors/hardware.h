#pragma once

#include "base/shared.h"
#include "net/socket.h"

// Answers a "hardware" request with the BIOS serial number, as dmidecode(8) tells it. Blocks while
// the command runs. Throws what `WriteResponse` throws.
void RunHardwareSensor(Base::Shared<Net::Socket> const& socket);
