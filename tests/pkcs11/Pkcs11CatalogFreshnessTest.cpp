// The module's catalogue between searches: unchanged files are served from
// what the library kept, and a certificate file added, removed or rewritten
// is seen by the next search all the same.
#include <chrono>
#include <thread>

#include "Pkcs11Session.h"

namespace x509auth_test {
namespace {

class Pkcs11CatalogFreshnessTest : public Pkcs11Test {
 protected:
  // Files changed more than a second ago are served from the library's
  // cache of parsed certificates, with their kept decisions.
  static void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); }
};

TEST_F(Pkcs11CatalogFreshnessTest, ASearchSeesACertificateFileAddedOrRemovedSinceTheLast) {
  const InstalledClient& alice = Install(KeyKind::k_ec, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  Settle();
  EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, alice.thumbprint).size(), 1u);
  EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, alice.thumbprint).size(), 1u) << "kept";

  const InstalledClient& bob = Install(KeyKind::k_rsa, "Bob");
  EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, bob.thumbprint).size(), 1u) << "added";
  EXPECT_EQ(s.FindClass(CKO_PRIVATE_KEY, bob.thumbprint).size(), 1u);
  EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, alice.thumbprint).size(), 1u);

  std::filesystem::remove(alice.cert_file);
  EXPECT_TRUE(s.FindClass(CKO_CERTIFICATE, alice.thumbprint).empty()) << "removed";
  EXPECT_TRUE(s.FindClass(CKO_PRIVATE_KEY, alice.thumbprint).empty());
  EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, bob.thumbprint).size(), 1u);

  Settle();
  EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, bob.thumbprint).size(), 1u);
  // Bob's file now holds Alice's certificate.
  WriteFile(bob.cert_file, CertToPem(alice.cert.get()));
  EXPECT_TRUE(s.FindClass(CKO_CERTIFICATE, bob.thumbprint).empty()) << "rewritten";
  EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, alice.thumbprint).size(), 1u);
}

}  // namespace
}  // namespace x509auth_test
