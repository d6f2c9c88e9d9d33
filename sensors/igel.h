#pragma once

#include <nlohmann/json_fwd.hpp>

// Returns the response to an "igel" request: the management certificates of an IGEL OS device, in
// the order in which their folder lists them; "ErrorGeneric" on any other device. The setting
// "igel-management-cert-path" names the folder, default "/wfs/igel-rmagent/trust-store".
//
// Blocks while openssl(1) runs, once for each certificate. Throws Base::Exception with a text for
// the client when the folder cannot be read, and "Shutting down" when commands are cancelled.
nlohmann::json AskIgel();
