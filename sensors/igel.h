#pragma once

#include <nlohmann/json_fwd.hpp>

// Returns the response to an "igel" request: the management certificates of an IGEL OS device, in
// the order in which readdir(3) yields them; "ErrorGeneric" on any other device. The certificates
// are the files with the extension ".pem" in the folder of the setting "igel-management-cert-path",
// default "/wfs/igel-rmagent/trust-store". A file that `GetCertificateInfo` refuses is left out.
//
// Blocks while openssl(1) runs, once for each certificate. Throws Base::Exception, with a text for
// the client: "Cannot read <folder>: <reason>"; "Shutting down" when commands are cancelled; the
// failure of the current `Process::CommandBudget`. So with a budget no certificate is left out
// because openssl was stopped or its shell could not be started.
nlohmann::json AskIgel();
