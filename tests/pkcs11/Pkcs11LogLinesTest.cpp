// What the module writes on stderr about the library's work: its routine
// step trace only at "info", and a certificate left out for want of its CA
// named by file, with the setting that fixes it.
#include "Pkcs11Session.h"

namespace x509auth_test {
namespace {

class Pkcs11LogLinesTest : public Pkcs11Test {
 protected:
  ChildResult ListObjects(const std::string& log_level) const {
    return Run({"pkcs11-tool", "--module", ModulePath(), "-O"}, "", {{"X509AUTH_LOG", log_level}});
  }

  // A client certificate under a root CA of its own that the CA file does
  // not hold.
  std::filesystem::path InstallWithUnknownCa(const std::string& name) {
    const ForeignClient client = MakeClientOfUnknownCa(name);
    const std::filesystem::path file = base_ / "certs" / (name + ".pem");
    WriteFile(file, CertToPem(client.leaf.get()));
    WriteFile(base_ / "keys" / (name + ".pem.key"), KeyToPem(client.leaf_key.get()));
    return file;
  }
};

TEST_F(Pkcs11LogLinesTest, AtWarningASuccessfulListingPrintsNothing) {
  Install(KeyKind::k_rsa, "Alice");
  Install(KeyKind::k_ec, "Bob", "s3cret");
  const ChildResult listed = ListObjects("warning");
  ASSERT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find("label:      Alice"), std::string::npos) << listed.out;
  // pkcs11-tool's own "Using slot ..." is all there is.
  EXPECT_EQ(listed.err.find("x509auth-pkcs11:"), std::string::npos) << listed.err;
}

TEST_F(Pkcs11LogLinesTest, AtInfoTheLibrarysStepTraceIsShownAsInfo) {
  Install(KeyKind::k_rsa, "Alice");
  const ChildResult listed = ListObjects("info");
  ASSERT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.err.find("x509auth-pkcs11: [info] CertStore::Open\n"), std::string::npos)
      << listed.err;
  EXPECT_NE(listed.err.find("x509auth-pkcs11: [info] cert: [Alice]\n"), std::string::npos);
  EXPECT_NE(listed.err.find("x509auth-pkcs11: [info] Total Client Certificates picked: 1\n"),
            std::string::npos);
  EXPECT_EQ(listed.err.find("[warning]"), std::string::npos) << listed.err;
}

TEST_F(Pkcs11LogLinesTest, AtWarningARealWarningStillPrints) {
  Install(KeyKind::k_rsa, "Alice");
  const std::filesystem::path conf = temp_ / "pkcs11.conf";
  WriteFile(conf, std::string("no_such_setting = 1\n"));
  const ChildResult listed =
      Run({"pkcs11-tool", "--module", ModulePath(), "-O"}, "",
          {{"X509AUTH_LOG", "warning"}, {"X509AUTH_PKCS11_CONF", conf.string()}});
  ASSERT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.err.find("[warning]"), std::string::npos) << listed.err;
  EXPECT_NE(listed.err.find("unknown setting 'no_such_setting'"), std::string::npos) << listed.err;
  EXPECT_EQ(listed.err.find("CertStore::Open"), std::string::npos) << listed.err;
}

TEST_F(Pkcs11LogLinesTest, ACertificateWhoseCaIsNotInCaFilesIsNamedWithTheSettingThatFixesIt) {
  Install(KeyKind::k_rsa, "Alice");
  const std::filesystem::path mallory = InstallWithUnknownCa("Mallory");
  const ChildResult listed = ListObjects("error");
  ASSERT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find("label:      Alice"), std::string::npos) << listed.out;
  EXPECT_EQ(listed.out.find("Mallory"), std::string::npos) << listed.out;
  const std::string line = "x509auth-pkcs11: [error] certificate " + mallory.string() +
                           " (Mallory) is not offered: its chain cannot be built (unable to get "
                           "local issuer certificate); add its CA to ca_files (or "
                           "X509AUTH_CA_FILES)\n";
  const std::size_t at = listed.err.find(line);
  EXPECT_NE(at, std::string::npos) << listed.err;
  // The library's own line stays; the offered certificate is not named; and
  // a program listing again and again is told once.
  EXPECT_NE(listed.err.find("Failed to get CA chain for a certificate"), std::string::npos);
  EXPECT_EQ(listed.err.find("Alice"), std::string::npos) << listed.err;
  EXPECT_EQ(listed.err.find(line, at + 1), std::string::npos) << listed.err;
}

TEST_F(Pkcs11LogLinesTest, ALeftOutCertificateIsNamedOnceAndAgainWhenItComesBack) {
  const std::filesystem::path mallory = InstallWithUnknownCa("Mallory");
  LoadedModule module;
  testing::internal::CaptureStderr();
  {
    ModuleSession s(module);
    s.FindClass(CKO_CERTIFICATE);
    s.FindClass(CKO_CERTIFICATE);
    // Gone, then back: a change of the listing, told again.
    const std::filesystem::path aside = temp_ / "aside.pem";
    std::filesystem::rename(mallory, aside);
    s.FindClass(CKO_CERTIFICATE);
    std::filesystem::rename(aside, mallory);
    s.FindClass(CKO_CERTIFICATE);
  }
  const std::string err = testing::internal::GetCapturedStderr();
  const std::string named = "certificate " + mallory.string() + " (Mallory) is not offered";
  const std::size_t first = err.find(named);
  ASSERT_NE(first, std::string::npos) << err;
  const std::size_t second = err.find(named, first + 1);
  ASSERT_NE(second, std::string::npos) << err;
  EXPECT_EQ(err.find(named, second + 1), std::string::npos) << err;
}

}  // namespace
}  // namespace x509auth_test
