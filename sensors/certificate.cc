#include "sensors/certificate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <optional>

#include "base/text.h"
#include "base/unique_fd.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"
#include "utilities/utilities.h"

TRACE_MODULE("certificate");

namespace {

// Several times what a certificate needs. OpenSSL 3.5 parses 1 MiB of zeros for ten seconds.
constexpr std::size_t maxFileSize = std::size_t{64} << 10U;

// What is special between double quotes in a shell (POSIX, Shell Command Language, 2.2.3), and line
// breaks. The path stands between double quotes in the command line and is not escaped.
constexpr std::string_view specialCharacters = "\"$`\\\n\r";

// Returns the bytes of the file, at most `maxFileSize`; empty if the daemon cannot open the file.
std::optional<std::string> ReadBytes(std::string const& filename) {
  // Non-blocking: the file may have become a FIFO since its type was checked.
  Base::UniqueFd const file(open(filename.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return {};
  std::string bytes(maxFileSize, '\0');
  std::size_t length = 0;
  while (length < bytes.size()) {
    ssize_t const count = read(file.Get(), bytes.data() + length, bytes.size() - length);
    if (count == -1 && errno == EINTR) continue;
    if (count <= 0) break;
    length += static_cast<std::size_t>(count);
  }
  bytes.resize(length);
  return bytes;
}

// In DER a certificate is a SEQUENCE, whose tag is 0x30 (RFC 5280, 4.1). In PEM a line begins it,
// and other text may come before that line (RFC 7468, 2 and 5.2).
bool LooksLikeCertificate(std::string_view bytes) {
  constexpr char sequenceTag = 0x30;
  return bytes.starts_with(sequenceTag) || bytes.starts_with("-----BEGIN ") ||
         bytes.find("\n-----BEGIN ") != std::string_view::npos;
}

// Whether the file can be given to openssl. It would wait for a FIFO, and parse a device or a large
// file for a long time. A file that cannot be opened is left to openssl, which prints the reason.
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
  if (static_cast<std::size_t>(file.st_size) > maxFileSize) {
    TRACE_ERROR("Certificate file is too large", filename, Trace::As("size", file.st_size));
    return false;
  }
  auto const bytes = ReadBytes(filename);
  if (bytes && !LooksLikeCertificate(*bytes)) {
    TRACE_ERROR("Certificate file does not look like a certificate", filename);
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
