#include "sensors/certificate.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/utilities/arguments/settings.h"

namespace {

class CertificateInfoTest : public testing::Test {
 protected:
  void SetUp() override { SetArguments({}); }

  static Certificate Parse(std::string const& output) {
    Certificate certificate;
    ParseCertificateInfo(output, certificate);
    return certificate;
  }

  // What the two versions print of one certificate.
  std::string const openssl1 =
      "subject=C = DE, O = \"Example, Inc.\", CN = a=b\n"
      "serial=0A1B\n"
      "SHA256 Fingerprint=01:Ab:FF\n";
  std::string const openssl3 =
      "subject=C = DE, O = \"Example, Inc.\", CN = a=b\n"
      "serial=0A1B\n"
      "sha256 Fingerprint=01:Ab:FF\n";
};

TEST_F(CertificateInfoTest, FieldsAsTheyWerePrinted) {
  Certificate const certificate = Parse(openssl1);
  EXPECT_EQ(certificate.subject, "C = DE, O = \"Example, Inc.\", CN = a=b");
  EXPECT_EQ(certificate.serial, "0A1B");
  EXPECT_EQ(certificate.thumbprintSha256, "01AbFF");
}

TEST_F(CertificateInfoTest, FingerprintKeyOfOpenssl3CountsOnlyWhenWanted) {
  EXPECT_EQ(Parse(openssl3).thumbprintSha256, "");
  EXPECT_EQ(Parse(openssl3).serial, "0A1B");
  SetArguments({"--openssl-fingerprint-any-case"});
  EXPECT_EQ(Parse(openssl3).thumbprintSha256, "01AbFF");
  EXPECT_EQ(Parse(openssl1).thumbprintSha256, "01AbFF");
}

TEST_F(CertificateInfoTest, OtherLinesAreIgnored) {
  Certificate const certificate =
      Parse("no certificate\nSubject=1\n subject=2\nserial =3\nSHA1 Fingerprint=AA\n=\n\nsubject=");
  EXPECT_EQ(certificate.subject + certificate.serial + certificate.thumbprintSha256, "");
}

}  // namespace
