#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "sensors/certificate.h"
#include "utilities/arguments/arguments.h"
#include "utilities/os.h"

// The texts that sensors read: os-release files, and the output of openssl over a certificate. The
// first byte of the input chooses: "o" is an os-release file, any other one an output. Each field
// is a part of the input, in the form that its header documents.

namespace {

void Require(bool condition) {
  if (!condition) __builtin_trap();
}

// A file in memory, so that nothing stays behind when a check fails.
void WriteFile(int fd, std::string_view text) {
  Require(ftruncate(fd, 0) == 0);
  Require(pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
}

void CheckOsRelease(std::string_view text) {
  static int const fd = memfd_create("os-release", MFD_CLOEXEC);
  WriteFile(fd, text);
  PlatformFacts const facts = DetectPlatform("/proc/self/fd/" + std::to_string(fd));
  for (std::string const& value : {facts.version, facts.prettyName}) {
    Require(value.find_first_of("\"\n") == std::string::npos);
    Require(Base::TrimWhiteSpace(value) == value);
    Require(value.size() <= text.size());
  }
  // Only a known platform has a version here, and none without its name in the file.
  if (facts.platform == Platform::Linux) {
    Require(facts.version.empty());
  } else {
    Require(!GetPlatformName(facts.platform).empty());
    Require(text.find("NAME=") != std::string_view::npos);
  }
}

void CheckCertificate(std::string_view output) {
  Certificate certificate;
  ParseCertificateInfo(output, certificate);
  for (auto const& [key, value] :
       {std::pair("subject=", certificate.subject), std::pair("serial=", certificate.serial)}) {
    Require(value.find('\n') == std::string::npos);
    Require(value.empty() || output.find(key + value) != std::string_view::npos);
  }
  for (char const c : certificate.thumbprintSha256) Require(Base::IsLetterOrDigit(c));
  if (output.find("SHA256 Fingerprint=") == std::string_view::npos) {
    Require(certificate.thumbprintSha256.empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  static_cast<void>(argc);
  static_cast<void>(argv);
  char const* const arguments[] = {"fuzzer", "--trace-level=-1"};
  ParseArguments(2, arguments);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  std::string_view const text(reinterpret_cast<char const*>(data) + 1, size - 1);
  if (data[0] == 'o') {
    CheckOsRelease(text);
  } else {
    CheckCertificate(text);
  }
  return 0;
}
