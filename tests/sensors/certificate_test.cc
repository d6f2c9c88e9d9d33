#include "sensors/certificate.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/utilities/arguments/settings.h"

namespace {

struct Case {
  char const* output;  // of openssl
  bool isAnyCase;      // the setting
  Certificate expected;
};

// OpenSSL 1.1.1 prints "SHA256 Fingerprint", OpenSSL 3 "sha256 Fingerprint".
TEST(CertificateTest, FieldsAreTakenFromLinesWithTheExactKey) {
  for (Case const& row : std::vector<Case>{
           {"subject=C = DE, O = \"Example, Inc.\", CN = a=b\nserial=0A1B\n"
            "SHA256 Fingerprint=01:Ab:FF\n",
            false,
            {"C = DE, O = \"Example, Inc.\", CN = a=b", "01AbFF", "0A1B"}},
           {"serial=0A1B\nsha256 Fingerprint=01:Ab:FF\n", false, {"", "", "0A1B"}},
           {"serial=0A1B\nsha256 Fingerprint=01:Ab:FF\n", true, {"", "01AbFF", "0A1B"}},
           {"SHA256 Fingerprint=01:Ab:FF", true, {"", "01AbFF", ""}},
           {"no certificate\nSubject=1\n subject=2\nserial =3\nSHA1 Fingerprint=AA\n=\n\nsubject=",
            true,
            {}},
       }) {
    SetArguments({row.isAnyCase ? "--openssl-fingerprint-any-case" : "--other"});
    Certificate certificate;
    ParseCertificateInfo(row.output, certificate);
    EXPECT_EQ(certificate.subject, row.expected.subject) << row.output;
    EXPECT_EQ(certificate.thumbprintSha256, row.expected.thumbprintSha256) << row.output;
    EXPECT_EQ(certificate.serial, row.expected.serial) << row.output;
  }
}

}  // namespace
