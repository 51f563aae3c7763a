// A key loaded through the provider holds the library's open key: many
// signatures in one process, with the key file changed between them, each
// either verified with the certificate or refused with one error that says
// why, and signing again once the right key is back.
#include <filesystem>
#include <string>

#include "ProviderInProcessFixture.h"

namespace x509auth_test {
namespace {

// The data text of the one error the provider raised, or "" when there is
// none; other errors are dropped.
std::string ProviderErrorData() {
  std::string found;
  unsigned long code;
  const char* data = nullptr;
  int flags = 0;
  while ((code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) != 0)
    if (data != nullptr && std::string(data).find("thumbprint=") != std::string::npos) found = data;
  return found;
}

void Replace(const std::filesystem::path& path, const std::string& content) {
  const std::filesystem::path fresh = path.string() + ".new";
  WriteFile(fresh, content);
  std::filesystem::rename(fresh, path);
}

TEST_F(ProviderInProcessTest, ManySignaturesFollowTheKeyFileAsItChangesBetweenThem) {
  const std::string thumbprint = InstallClient(KeyKind::k_ec, "Changing Client");
  const std::filesystem::path key_file = base_ / "keys" / "Changing Client.pem.key";
  const std::string original = KeyToPem(chains_[0].leaf_key.get());
  auto loaded = Load(base_);
  Answer answer;
  x509auth_openssl::EvpPkeyPtr key(LoadKey(*loaded, thumbprint, &answer));
  ASSERT_NE(key, nullptr) << ErrorText();
  X509* cert = chains_[0].leaf.get();
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(SignsAndVerifies(*loaded, key.get(), "SHA256", cert));

  // The same key, rewritten in place as DER: read again, and it still
  // signs.
  const Bytes der = KeyToDer(chains_[0].leaf_key.get());
  WriteFile(key_file, der);
  for (int i = 0; i < 5; ++i)
    EXPECT_TRUE(SignsAndVerifies(*loaded, key.get(), "SHA384", cert)) << ErrorText();

  // Another key in its place: refused, with the reason.
  TestKey other = MakeKey(KeyKind::k_ec);
  Replace(key_file, KeyToPem(other.get()));
  ERR_clear_error();
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(SignsAndVerifies(*loaded, key.get(), "SHA256", cert));
    const std::string data = ProviderErrorData();
    EXPECT_NE(data.find("X509_Auth_SignHash result 14"), std::string::npos) << data;
    EXPECT_NE(data.find("the key file no longer holds the certificate's key"), std::string::npos)
        << data;
  }

  // Gone: the key cannot be opened.
  std::filesystem::remove(key_file);
  EXPECT_FALSE(SignsAndVerifies(*loaded, key.get(), "SHA256", cert));
  const std::string gone = ProviderErrorData();
  EXPECT_NE(gone.find("X509_Auth_SignHash result 4"), std::string::npos) << gone;
  EXPECT_NE(gone.find("does not exist"), std::string::npos) << gone;

  // Back: signs again, and nothing is left queued.
  Replace(key_file, original);
  for (int i = 0; i < 5; ++i)
    EXPECT_TRUE(SignsAndVerifies(*loaded, key.get(), "SHA256", cert)) << ErrorText();
  EXPECT_EQ(ERR_peek_error(), 0u) << ErrorText();
}

TEST_F(ProviderInProcessTest, PasswordProtectedKeyIsAskedForOnceAtLoadAndSignsWithoutAsking) {
  const std::string thumbprint = InstallClient(KeyKind::k_rsa, "Locked Signer", "s3cret");
  auto loaded = Load(base_);
  Answer answer{"s3cret"};
  x509auth_openssl::EvpPkeyPtr key(LoadKey(*loaded, thumbprint, &answer));
  ASSERT_NE(key, nullptr) << ErrorText();
  EXPECT_EQ(answer.asked, 1);
  for (int i = 0; i < 10; ++i)
    EXPECT_TRUE(SignsAndVerifies(*loaded, key.get(), "SHA256", chains_[0].leaf.get()));
  EXPECT_EQ(answer.asked, 1);
}

}  // namespace
}  // namespace x509auth_test
