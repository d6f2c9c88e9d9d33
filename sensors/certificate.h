#pragma once

#include <string>
#include <string_view>

// What openssl(1) tells of a certificate, as it prints it.
struct Certificate {
  std::string subject;
  std::string thumbprintSha256;  // letters and digits only
  std::string serial;
};

// Fills `certificate` with what `openssl x509` says of the file; blocks while it runs. False, after
// an ERROR line, when the file is not there, cannot be put on a command line, is no regular file
// (behind links) of at most 1 MiB, or when openssl could not be run to its end. A file that openssl
// can make nothing of is no failure: what it does not print stays empty.
bool GetCertificateInfo(std::string const& path, Certificate& certificate);

// Fills `certificate` from the output of `openssl x509 -subject -serial -fingerprint -sha256`.
//
// The key of the fingerprint is "SHA256 Fingerprint", as OpenSSL 1.1.1 prints it. OpenSSL 3 prints
// "sha256 Fingerprint", which counts only with the setting "openssl-fingerprint-any-case".
void ParseCertificateInfo(std::string_view output, Certificate& certificate);
