#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <sstream>
#include <system_error>

#include "base/exception.h"
#include "base/text.h"
#include "client/deadline.h"
#include "client/doctor/checks.h"
#include "support/error.h"

// The commands and files of the daemon's sensors. The commands are those that the sensors run, with
// the daemon's PATH. Where the daemon has answered, its answer counts and not the command: the
// daemon may see other tables than this process, and only root can read them.

namespace {

using Clock = std::chrono::steady_clock;

// What firmware has where nobody has set a serial number.
constexpr auto placeholders = std::to_array<std::string_view>(
    {"Not Specified", "Not Available", "Not Applicable", "N/A", "None", "Unknown", "Invalid",
     "Default string", "System Serial Number", "To Be Filled By O.E.M.", "To be filled by O.E.M.",
     "Serial Number", "OEM", "0", "123456789", "0123456789"});

bool IsPlaceholder(std::string_view serialNumber) {
  return std::ranges::any_of(placeholders, [&](std::string_view placeholder) {
    return Base::EqualsIgnoringCase(serialNumber, placeholder);
  });
}

std::string GetFirstLine(std::string const& text) { return text.substr(0, text.find('\n')); }

bool IsCommandThere(Findings const& findings, std::string const& name) {
  CommandResult const result = RunCommand(
      {.words = {"command", "-v", name}, .limit = findings.options.timeout, .path = findings.path});
  return result.status == 0;
}

void AddSerialNumber(Findings& findings, std::string const& serialNumber) {
  if (IsPlaceholder(serialNumber)) {
    findings.AddProblem("serial-number", CheckState::Warning, "serial-number-placeholder",
                        "The firmware has \"" + serialNumber + "\" instead of a serial number",
                        {{"text", serialNumber}});
  } else {
    findings.AddOk("serial-number", "The firmware has a serial number");
  }
}

void AddNoTables(Findings& findings) {
  findings.AddProblem("serial-number", CheckState::Warning, "firmware-tables-missing",
                      "This machine has no firmware tables: there is no /sys/firmware/dmi/tables");
}

void AddFailedDmidecode(Findings& findings, CommandResult const& result) {
  std::string const text = GetFirstLine(result.output);
  nlohmann::json const fields{{"status", result.status}, {"output", text}};
  bool const isDenied = result.output.find("Permission denied") != std::string::npos ||
                        result.output.find("Operation not permitted") != std::string::npos;
  if (isDenied) {
    findings.AddProblem("serial-number", CheckState::Failed, "dmidecode-denied",
                        "The system does not let dmidecode read the firmware tables: " + text,
                        fields);
  } else if (!HasFirmwareTables()) {
    AddNoTables(findings);
  } else {
    findings.AddProblem(
        "serial-number", CheckState::Failed, "dmidecode-failed",
        "dmidecode failed with status " + std::to_string(result.status) + ": " + text, fields);
  }
}

// Whether the checks of the trust store are to be made; else adds why they are not.
bool IsIgel(Findings& findings, std::string_view check) {
  if (!findings.platform) {
    findings.AddNotChecked(check, "platform");
    return false;
  }
  if (findings.platform == Platform::Igel11 || findings.platform == Platform::Igel12) return true;
  findings.AddProblem(check, CheckState::NotChecked, "not-igel",
                      "This is not an IGEL device: the daemon needs no certificates");
  return false;
}

// The daemon leaves out other files. Opening a FIFO would block.
bool IsFitForOpenssl(std::string const& path) {
  constexpr off_t maxSize = off_t{64} << 10U;
  struct stat file {};
  return stat(path.c_str(), &file) == 0 && S_ISREG(file.st_mode) && file.st_size <= maxSize;
}

// What openssl prints about the certificates of the trust store.
struct Inspection {
  std::vector<std::string> broken;  // names of files
  std::string fingerprintKey;       // of the first certificate
};

// The part of the fingerprint's line before the "="; empty when there is none.
std::string FindFingerprintKey(std::string const& output) {
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    std::string const key = line.substr(0, line.find('='));
    if (Base::EqualsIgnoringCase(key, "SHA256 Fingerprint")) return key;
  }
  return {};
}

Inspection InspectCertificates(Findings const& findings, std::vector<std::string> const& names) {
  Inspection inspection;
  auto const deadline = Clock::now() + findings.options.timeout;
  for (std::string const& name : names) {
    std::string const path = findings.root + GetTrustStore(findings) + "/" + name;
    if (!IsFitForOpenssl(path)) {
      inspection.broken.push_back(name);
      continue;
    }
    auto const left = std::chrono::ceil<std::chrono::seconds>(deadline - Clock::now());
    CommandResult const result =
        RunCommand({.words = {"openssl", "x509", "-in", path, "-subject", "-serial", "-fingerprint",
                              "-sha256", "-noout"},
                    .limit = std::max(left, std::chrono::seconds(1)),
                    .path = findings.path});
    std::string const key = FindFingerprintKey(result.output);
    if (key.empty()) inspection.broken.push_back(name);
    if (inspection.fingerprintKey.empty()) inspection.fingerprintKey = key;
  }
  return inspection;
}

std::string Join(std::vector<std::string> const& names) {
  constexpr std::size_t maxCount = 5;
  std::string text;
  for (std::size_t i = 0; i < std::min(names.size(), maxCount); ++i)
    text += (i == 0 ? "" : ", ") + names[i];
  return names.size() <= maxCount ? text : text + ", ...";
}

}  // namespace

bool HasFirmwareTables() { return access("/sys/firmware/dmi/tables", F_OK) == 0; }

std::string GetTrustStore(Findings const& findings) {
  return findings.GetSetting("igel_management_cert_path", "/wfs/igel-rmagent/trust-store");
}

std::vector<std::string> ListCertificates(std::string const& folder, int& error) {
  std::vector<std::string> names;
  std::error_code failure;
  std::filesystem::directory_iterator entry(folder, failure);
  for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
    auto const& path = entry->path();
    if (path.extension() == ".pem" && path.filename() != "cacerts.pem")
      names.push_back(path.filename());
  }
  error = failure.value();
  std::ranges::sort(names);
  return names;
}

Findings CheckPlatform(Findings findings) {
  findings.platform = GetPlatform();
  std::string const platform = GetPlatformName(*findings.platform);
  std::string const version = GetPlatformVersion();
  findings.AddOk("platform", "The platform is " + platform + " " + version,
                 {{"platform", platform}, {"version", version}, {"name", GetPrettyName()}});
  return findings;
}

Findings CheckDmidecode(Findings findings) {
  if (IsCommandThere(findings, "dmidecode")) {
    findings.AddOk("dmidecode", "The command dmidecode is there", {{"path", findings.path}});
  } else {
    findings.AddProblem("dmidecode", CheckState::Failed, "dmidecode-missing",
                        "There is no command dmidecode in " + findings.path,
                        {{"path", findings.path}});
  }
  return findings;
}

Findings CheckSerialNumber(Findings findings) {
  constexpr std::string_view check = "serial-number";
  if (findings.serialNumber) {
    AddSerialNumber(findings, *findings.serialNumber);
  } else if (findings.HasProblem("dmidecode")) {
    findings.AddNotChecked(check, "dmidecode");
  } else if (geteuid() != 0) {
    if (HasFirmwareTables()) {
      findings.AddNeedsRoot(check, "the firmware tables");
    } else {
      AddNoTables(findings);
    }
  } else {
    CommandResult result = RunCommand({.words = {"dmidecode", "-s", "system-serial-number"},
                                       .limit = findings.options.timeout,
                                       .path = findings.path});
    std::string const serialNumber(Base::TrimWhiteSpace(result.output));
    if (result.status != 0) {
      // Again for its complaint, without its output: that may have the serial number.
      result = RunCommand(
          {.words = {"/bin/sh", "-c", "exec dmidecode -s system-serial-number >/dev/null"},
           .limit = findings.options.timeout,
           .path = findings.path,
           .withErrors = true});
      AddFailedDmidecode(findings, result);
    } else if (!serialNumber.empty()) {
      AddSerialNumber(findings, serialNumber);
    } else if (HasFirmwareTables()) {
      findings.AddProblem(check, CheckState::Failed, "serial-number-empty",
                          "dmidecode prints no serial number");
    } else {
      AddNoTables(findings);
    }
  }
  return findings;
}

Findings CheckTrustStore(Findings findings) {
  constexpr std::string_view check = "trust-store";
  if (!IsIgel(findings, check)) return findings;
  std::string const folder = GetTrustStore(findings);
  int error = 0;
  std::vector<std::string> const names = ListCertificates(findings.root + folder, error);
  nlohmann::json const facts{{"path", folder}, {"certificates", names.size()}};
  if (error == ENOENT) {
    findings.AddProblem(check, CheckState::Failed, "trust-store-missing",
                        "There is no trust store " + folder, facts);
  } else if (error == EACCES && geteuid() != 0) {
    findings.AddNeedsRoot(check, "the trust store " + folder);
  } else if (error != 0) {
    findings.AddProblem(check, CheckState::Failed, "trust-store-unreadable",
                        "The trust store " + folder + " cannot be read: " + Base::ErrnoText(error),
                        facts);
  } else if (names.empty()) {
    findings.AddProblem(check, CheckState::Warning, "trust-store-empty",
                        "The trust store " + folder + " has no management certificate", facts);
  } else {
    findings.AddOk(check,
                   "The trust store " + folder + " has " + std::to_string(names.size()) +
                       " management certificates",
                   facts);
  }
  return findings;
}

Findings CheckOpenssl(Findings findings) {
  constexpr std::string_view check = "openssl";
  if (!IsIgel(findings, check)) return findings;
  if (!IsCommandThere(findings, check.data())) {
    findings.AddProblem(check, CheckState::Failed, "openssl-missing",
                        "There is no command openssl in " + findings.path,
                        {{"path", findings.path}});
    return findings;
  }
  if (findings.HasProblem("trust-store")) {
    findings.AddNotChecked(check, "trust-store");
    return findings;
  }
  int error = 0;
  auto const names = ListCertificates(findings.root + GetTrustStore(findings), error);
  Inspection const inspection = InspectCertificates(findings, names);
  nlohmann::json const facts{{"fingerprint_key", inspection.fingerprintKey},
                             {"broken", inspection.broken}};
  bool const isUpperCase = inspection.fingerprintKey == "SHA256 Fingerprint";
  if (!inspection.broken.empty()) {
    findings.AddProblem(
        check, CheckState::Warning, "certificate-broken",
        "These files are no certificates that openssl can read: " + Join(inspection.broken), facts);
  } else if (!isUpperCase && !findings.IsSettingTrue("openssl_fingerprint_any_case")) {
    findings.AddProblem(check, CheckState::Warning, "fingerprint-case",
                        "openssl prints \"" + inspection.fingerprintKey +
                            "\", which the daemon does not accept: all thumbprints are empty",
                        facts);
  } else {
    findings.AddOk(check, "openssl reads all management certificates", facts);
  }
  return findings;
}
