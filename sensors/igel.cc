#include "sensors/igel.h"

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>

#include "base/exception.h"
#include "process/command_budget.h"
#include "process/shell_command.h"
#include "sensors/certificate.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"
#include "utilities/os.h"

TRACE_MODULE("main");

namespace {

bool IsIgelDevice() {
  Platform const platform = GetPlatform();
  return platform == Platform::Igel11 || platform == Platform::Igel12;
}

// "cacerts.pem" is the bundle of certificate authorities and no management certificate.
bool IsManagementCertificate(std::filesystem::path const& path) {
  return path.extension() == ".pem" && path.filename() != "cacerts.pem";
}

void AppendCertificate(std::string const& path, nlohmann::json& response) {
  Certificate certificate;
  if (!GetCertificateInfo(path, certificate)) {
    TRACE_WARNING("Failed to analyse igel management certificate", path);
    return;
  }
  response["sensor"]["igel"]["management_certificates"].push_back({
      {"serial_number", certificate.serial},
      {"thumbprint_sha256", certificate.thumbprintSha256},
      {"subject", certificate.subject},
  });
}

// Throws when a command was stopped or could not be started: a response without its certificate
// would look complete.
void RequireCompleteCommands() {
  if (Process::AreShellCommandsCancelled()) throw Base::Exception("Shutting down");
  auto const* const budget = Process::CommandBudget::GetCurrent();
  if (budget != nullptr && !budget->GetFailure().empty()) {
    throw Base::Exception(budget->GetFailure());
  }
}

void AppendCertificates(std::string const& folder, nlohmann::json& response) {
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    if (!IsManagementCertificate(entry->path())) continue;
    AppendCertificate(entry->path(), response);
    RequireCompleteCommands();
  }
  if (error) {
    throw Base::Exception("Cannot read " + folder + ": " + Base::ErrnoText(error.value()));
  }
}

}  // namespace

nlohmann::json AskIgel() {
  if (!IsIgelDevice()) {
    TRACE_ERROR("Cannot handle IGEL request from non-IGEL device");
    return {{"status", "ErrorGeneric"}, {"error_message", "Not an IGEL device"}};
  }
  nlohmann::json response{{"status", "Success"}};
  AppendCertificates(GetArgument("igel-management-cert-path", "/wfs/igel-rmagent/trust-store"),
                     response);
  return response;
}
