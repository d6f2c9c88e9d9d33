#pragma once

#include <string>
#include <string_view>

// The fields of a certificate, as openssl(1) prints them.
struct Certificate {
  std::string subject;
  std::string thumbprintSha256;  // only the letters and digits of what openssl prints
  std::string serial;
};

// Runs `openssl x509` on the file and fills `certificate` from its output. Blocks while openssl
// runs. Returns false, after an ERROR line, when
//
//   - the file does not exist, is no regular file (links are followed) or is larger than 64 KiB,
//   - the file can be read and holds neither DER, which begins with the byte 0x30, nor a line that
//     begins with "-----BEGIN ", as PEM has,
//   - the path has a character that is special between double quotes in a shell, or a line break,
//   - openssl could not be started, or was stopped by a limit of `RunInShell` or by a cancel.
//
// Deliberate: returns true for a file that looks like a certificate and is none. openssl then
// prints no field, and the fields of `certificate` stay as they are.
bool GetCertificateInfo(std::string const& path, Certificate& certificate);

// Fills `certificate` from the output of `openssl x509 -subject -serial -fingerprint -sha256`. A
// field without a line in `output` stays as it is.
//
// Deliberate: the key of the fingerprint is "SHA256 Fingerprint", as OpenSSL 1.1.1 prints it.
// OpenSSL 3 prints "sha256 Fingerprint", so the thumbprint stays empty unless the setting
// "openssl-fingerprint-any-case" is true.
void ParseCertificateInfo(std::string_view output, Certificate& certificate);
