#include "sensors/certificate.h"

#include <sys/stat.h>

#include "base/text.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"
#include "utilities/utilities.h"

TRACE_MODULE("certificate");

namespace {

constexpr off_t maxFileSize = off_t{1} << 20;

// What is special between double quotes in a shell (POSIX, Shell Command Language, 2.2.3), and line
// breaks. The path stands between double quotes in the command line and is not escaped.
constexpr std::string_view specialCharacters = "\"$`\\\n\r";

// Whether the file can be given to openssl. It would wait for a FIFO, and read a device or a very
// large file for a long time.
bool IsFitForOpenssl(std::string const& filename) {
  struct stat file {};
  if (stat(filename.c_str(), &file) == -1) {
    TRACE_ERROR("Certificate could not be found", filename);
    return false;
  }
  if (filename.find_first_of(specialCharacters) != std::string::npos) {
    TRACE_ERROR("Certificate has a name that a shell would not take as it is", filename);
    return false;
  }
  if (!S_ISREG(file.st_mode)) {
    TRACE_ERROR("Certificate is no regular file", filename);
    return false;
  }
  if (file.st_size > maxFileSize) {
    TRACE_ERROR("Certificate file is too large", filename, Trace::As("size", file.st_size));
    return false;
  }
  return true;
}

bool IsFingerprintKey(std::string_view key) {
  constexpr std::string_view fingerprintKey = "SHA256 Fingerprint";
  if (key == fingerprintKey) return true;
  return GetBoolArgument("openssl-fingerprint-any-case", false) &&
         Base::EqualsIgnoringCase(key, fingerprintKey);
}

std::string KeepLettersAndDigits(std::string_view text) {
  std::string kept(text);
  std::erase_if(kept, [](char c) { return !Base::IsLetterOrDigit(c); });
  return kept;
}

void ParseLine(std::string_view line, Certificate& cert) {
  auto const equals = line.find('=');
  if (equals == std::string_view::npos) return;
  std::string_view const key = line.substr(0, equals);
  std::string_view const value = line.substr(equals + 1);
  if (key == "subject") {
    cert.subject = value;
  } else if (key == "serial") {
    cert.serial = value;
  } else if (IsFingerprintKey(key)) {
    cert.thumbprintSha256 = KeepLettersAndDigits(value);
    TRACE_VERBOSE("Certificate thumbprint formatted", cert.thumbprintSha256);
  }
}

}  // namespace

bool GetCertificateInfo(std::string const& path, Certificate& certificate) {
  if (!IsFitForOpenssl(path)) return false;
  std::string const command =
      "LC_ALL=C openssl x509 -in \"" + path + "\" -subject -serial -fingerprint -sha256 -noout";
  std::string output;
  if (!ExecuteCommand(command, output)) {
    TRACE_ERROR("Failed to determine certificate information from command", command);
    return false;
  }
  ParseCertificateInfo(output, certificate);
  return true;
}

void ParseCertificateInfo(std::string_view output, Certificate& certificate) {
  while (!output.empty()) {
    auto const end = output.find('\n');
    ParseLine(output.substr(0, end), certificate);
    output.remove_prefix(end == std::string_view::npos ? output.size() : end + 1);
  }
}
