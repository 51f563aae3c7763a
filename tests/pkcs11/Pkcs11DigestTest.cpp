// The module's digest mechanisms (CKM_SHA_1 .. CKM_SHA512): listed, computed
// in one part and in several, with PKCS#11's buffer and operation rules, and
// through pkcs11-tool --hash against openssl dgst.
#include <algorithm>

#include "Pkcs11Session.h"

namespace x509auth_test {
namespace {

const Bytes k_data = {'d', 'i', 'g', 'e', 's', 't', ' ', 'm', 'e'};

Bytes Expected(const EVP_MD* md, const Bytes& data) {
  Bytes digest(EVP_MAX_MD_SIZE);
  unsigned int length = 0;
  EXPECT_EQ(EVP_Digest(data.data(), data.size(), digest.data(), &length, md, nullptr), 1);
  digest.resize(length);
  return digest;
}

struct DigestCase {
  CK_MECHANISM_TYPE mechanism;
  const EVP_MD* (*md)();
  const char* name;
};
const DigestCase k_cases[] = {{CKM_SHA_1, EVP_sha1, "SHA-1"},
                              {CKM_SHA256, EVP_sha256, "SHA256"},
                              {CKM_SHA384, EVP_sha384, "SHA384"},
                              {CKM_SHA512, EVP_sha512, "SHA512"}};

class Pkcs11DigestTest : public Pkcs11Test {
 protected:
  // A one-part digest with the two calls programs make: the length, then
  // the digest.
  static Bytes DigestOnce(const ModuleSession& s, CK_MECHANISM_TYPE type, const Bytes& data) {
    CK_MECHANISM mechanism{type, nullptr, 0};
    EXPECT_EQ(s.f()->C_DigestInit(s.session(), &mechanism), CKR_OK);
    CK_ULONG length = 0;
    auto* in = const_cast<unsigned char*>(data.data());
    EXPECT_EQ(s.f()->C_Digest(s.session(), in, data.size(), nullptr, &length), CKR_OK);
    Bytes digest(length);
    EXPECT_EQ(s.f()->C_Digest(s.session(), in, data.size(), digest.data(), &length), CKR_OK);
    digest.resize(length);
    return digest;
  }
};

TEST_F(Pkcs11DigestTest, TheFourDigestsAreListedWithTheDigestFlagOnly) {
  LoadedModule module;
  ModuleSession s(module);
  CK_ULONG count = 0;
  ASSERT_EQ(s.f()->C_GetMechanismList(s.slot(), nullptr, &count), CKR_OK);
  std::vector<CK_MECHANISM_TYPE> list(count);
  ASSERT_EQ(s.f()->C_GetMechanismList(s.slot(), list.data(), &count), CKR_OK);
  for (const DigestCase& c : k_cases) {
    SCOPED_TRACE(c.name);
    EXPECT_NE(std::find(list.begin(), list.end(), c.mechanism), list.end());
    CK_MECHANISM_INFO info{};
    ASSERT_EQ(s.f()->C_GetMechanismInfo(s.slot(), c.mechanism, &info), CKR_OK);
    EXPECT_EQ(info.flags, static_cast<CK_FLAGS>(CKF_DIGEST));
  }
}

TEST_F(Pkcs11DigestTest, EachDigestInOnePartEqualsOpenssls) {
  LoadedModule module;
  ModuleSession s(module);
  for (const DigestCase& c : k_cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(DigestOnce(s, c.mechanism, k_data), Expected(c.md(), k_data));
    EXPECT_EQ(DigestOnce(s, c.mechanism, {}), Expected(c.md(), {}));
  }
}

TEST_F(Pkcs11DigestTest, EachDigestInSeveralPartsEqualsTheDigestOfTheWhole) {
  LoadedModule module;
  ModuleSession s(module);
  Bytes whole;
  for (int i = 0; i < 1000; ++i) whole.push_back(static_cast<unsigned char>(i * 7));
  for (const DigestCase& c : k_cases) {
    SCOPED_TRACE(c.name);
    CK_MECHANISM mechanism{c.mechanism, nullptr, 0};
    ASSERT_EQ(s.f()->C_DigestInit(s.session(), &mechanism), CKR_OK);
    ASSERT_EQ(s.f()->C_DigestUpdate(s.session(), whole.data(), 1), CKR_OK);
    ASSERT_EQ(s.f()->C_DigestUpdate(s.session(), whole.data() + 1, 0), CKR_OK);
    ASSERT_EQ(s.f()->C_DigestUpdate(s.session(), whole.data() + 1, 600), CKR_OK);
    ASSERT_EQ(s.f()->C_DigestUpdate(s.session(), whole.data() + 601, whole.size() - 601), CKR_OK);
    CK_ULONG length = 0;
    ASSERT_EQ(s.f()->C_DigestFinal(s.session(), nullptr, &length), CKR_OK);
    Bytes digest(length);
    ASSERT_EQ(s.f()->C_DigestFinal(s.session(), digest.data(), &length), CKR_OK);
    digest.resize(length);
    EXPECT_EQ(digest, Expected(c.md(), whole));
  }
}

TEST_F(Pkcs11DigestTest, ABufferTooSmallGetsTheLengthAndKeepsTheDigestGoing) {
  LoadedModule module;
  ModuleSession s(module);
  CK_FUNCTION_LIST* f = s.f();
  CK_MECHANISM mechanism{CKM_SHA256, nullptr, 0};
  ASSERT_EQ(f->C_DigestInit(s.session(), &mechanism), CKR_OK);
  auto* in = const_cast<unsigned char*>(k_data.data());
  Bytes digest(31);
  CK_ULONG length = digest.size();
  EXPECT_EQ(f->C_Digest(s.session(), in, k_data.size(), digest.data(), &length),
            CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, 32u);
  digest.resize(length);
  ASSERT_EQ(f->C_Digest(s.session(), in, k_data.size(), digest.data(), &length), CKR_OK);
  EXPECT_EQ(digest, Expected(EVP_sha256(), k_data));
  // That call ended the digest.
  EXPECT_EQ(f->C_Digest(s.session(), in, k_data.size(), digest.data(), &length),
            CKR_OPERATION_NOT_INITIALIZED);

  // The same for C_DigestFinal: the parts given so far are kept.
  ASSERT_EQ(f->C_DigestInit(s.session(), &mechanism), CKR_OK);
  ASSERT_EQ(f->C_DigestUpdate(s.session(), in, k_data.size()), CKR_OK);
  length = 4;
  EXPECT_EQ(f->C_DigestFinal(s.session(), digest.data(), &length), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, 32u);
  ASSERT_EQ(f->C_DigestFinal(s.session(), digest.data(), &length), CKR_OK);
  EXPECT_EQ(digest, Expected(EVP_sha256(), k_data));
  EXPECT_EQ(f->C_DigestFinal(s.session(), digest.data(), &length), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(Pkcs11DigestTest, ASecondInitIsRefusedAndTheFirstDigestGoesOn) {
  LoadedModule module;
  ModuleSession s(module);
  CK_FUNCTION_LIST* f = s.f();
  CK_MECHANISM sha384{CKM_SHA384, nullptr, 0};
  CK_MECHANISM sha1{CKM_SHA_1, nullptr, 0};
  ASSERT_EQ(f->C_DigestInit(s.session(), &sha384), CKR_OK);
  EXPECT_EQ(f->C_DigestInit(s.session(), &sha1), CKR_OPERATION_ACTIVE);
  auto* in = const_cast<unsigned char*>(k_data.data());
  Bytes digest(64);
  CK_ULONG length = digest.size();
  ASSERT_EQ(f->C_Digest(s.session(), in, k_data.size(), digest.data(), &length), CKR_OK);
  digest.resize(length);
  EXPECT_EQ(digest, Expected(EVP_sha384(), k_data));
}

TEST_F(Pkcs11DigestTest, DigestCallsWithoutInitAreNotInitialized) {
  LoadedModule module;
  ModuleSession s(module);
  CK_FUNCTION_LIST* f = s.f();
  unsigned char data[] = "data";
  unsigned char out[64];
  CK_ULONG length = sizeof(out);
  EXPECT_EQ(f->C_Digest(s.session(), data, 4, out, &length), CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_EQ(f->C_DigestUpdate(s.session(), data, 4), CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_EQ(f->C_DigestFinal(s.session(), out, &length), CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_EQ(f->C_DigestKey(s.session(), 1), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(Pkcs11DigestTest, OtherMechanismsParametersAndBadArgumentsAreRefused) {
  LoadedModule module;
  ModuleSession s(module);
  CK_FUNCTION_LIST* f = s.f();
  CK_MECHANISM signing{CKM_SHA256_RSA_PKCS, nullptr, 0};
  EXPECT_EQ(f->C_DigestInit(s.session(), &signing), CKR_MECHANISM_INVALID);
  CK_MECHANISM md5{CKM_MD5, nullptr, 0};
  EXPECT_EQ(f->C_DigestInit(s.session(), &md5), CKR_MECHANISM_INVALID);
  CK_ULONG parameter = 1;
  CK_MECHANISM with_parameter{CKM_SHA256, &parameter, sizeof(parameter)};
  EXPECT_EQ(f->C_DigestInit(s.session(), &with_parameter), CKR_MECHANISM_PARAM_INVALID);
  EXPECT_EQ(f->C_DigestInit(s.session(), nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_DigestInit(s.session() + 100, &md5), CKR_SESSION_HANDLE_INVALID);
  CK_MECHANISM sha256{CKM_SHA256, nullptr, 0};
  ASSERT_EQ(f->C_DigestInit(s.session(), &sha256), CKR_OK);
  unsigned char out[64];
  CK_ULONG length = sizeof(out);
  EXPECT_EQ(f->C_Digest(s.session(), nullptr, 4, out, &length), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_Digest(s.session(), out, 4, out, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_DigestUpdate(s.session(), nullptr, 4), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_DigestFinal(s.session(), out, nullptr), CKR_ARGUMENTS_BAD);
  // Bad arguments are refused before the operation is looked at: it goes on.
  ASSERT_EQ(f->C_DigestFinal(s.session(), out, &length), CKR_OK);
  EXPECT_EQ(Bytes(out, out + length), Expected(EVP_sha256(), {}));
}

TEST_F(Pkcs11DigestTest, DigestKeyRefusesPrivateKeysAsIndigestibleAndCertificatesAsNoKey) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  CK_FUNCTION_LIST* f = s.f();
  CK_MECHANISM sha256{CKM_SHA256, nullptr, 0};
  // A digest mechanism does not sign either.
  EXPECT_EQ(f->C_SignInit(s.session(), &sha256, s.One(CKO_PRIVATE_KEY, alice.thumbprint)),
            CKR_MECHANISM_INVALID);
  ASSERT_EQ(f->C_DigestInit(s.session(), &sha256), CKR_OK);
  EXPECT_EQ(f->C_DigestKey(s.session(), s.One(CKO_PRIVATE_KEY, alice.thumbprint)),
            CKR_KEY_INDIGESTIBLE);
  // An error ends the digest.
  EXPECT_EQ(f->C_DigestUpdate(s.session(), nullptr, 0), CKR_OPERATION_NOT_INITIALIZED);
  ASSERT_EQ(f->C_DigestInit(s.session(), &sha256), CKR_OK);
  EXPECT_EQ(f->C_DigestKey(s.session(), s.One(CKO_CERTIFICATE, alice.thumbprint)),
            CKR_KEY_HANDLE_INVALID);
  ASSERT_EQ(f->C_DigestInit(s.session(), &sha256), CKR_OK);
  EXPECT_EQ(f->C_DigestKey(s.session(), 99999), CKR_KEY_HANDLE_INVALID);
}

TEST_F(Pkcs11DigestTest, ADigestAndASignatureRunSideBySideInOneSession) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  CK_FUNCTION_LIST* f = s.f();
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, alice.thumbprint);
  CK_MECHANISM sha512{CKM_SHA512, nullptr, 0};
  CK_MECHANISM signing{CKM_SHA256_RSA_PKCS, nullptr, 0};
  auto* in = const_cast<unsigned char*>(k_data.data());
  ASSERT_EQ(f->C_DigestInit(s.session(), &sha512), CKR_OK);
  ASSERT_EQ(f->C_DigestUpdate(s.session(), in, 3), CKR_OK);
  ASSERT_EQ(f->C_SignInit(s.session(), &signing, key), CKR_OK);
  ASSERT_EQ(f->C_SignUpdate(s.session(), in, k_data.size()), CKR_OK);
  ASSERT_EQ(f->C_DigestUpdate(s.session(), in + 3, k_data.size() - 3), CKR_OK);
  Bytes signature(256);
  CK_ULONG signature_length = signature.size();
  ASSERT_EQ(f->C_SignFinal(s.session(), signature.data(), &signature_length), CKR_OK);
  EXPECT_TRUE(VerifiesWithCertificate(alice.cert.get(), EVP_sha256(),
                                      Expected(EVP_sha256(), k_data), signature.data(),
                                      signature_length));
  Bytes digest(64);
  CK_ULONG length = digest.size();
  ASSERT_EQ(f->C_DigestFinal(s.session(), digest.data(), &length), CKR_OK);
  EXPECT_EQ(digest, Expected(EVP_sha512(), k_data));
}

TEST_F(Pkcs11DigestTest, Pkcs11ToolHashEqualsOpensslDgst) {
  const std::string input = (temp_ / "data").string();
  WriteFile(input, std::string(100000, 'x') + "tail");
  for (const char* name : {"SHA-1", "SHA256", "SHA384", "SHA512"}) {
    SCOPED_TRACE(name);
    const std::string output = (temp_ / "hash").string();
    const ChildResult hashed = Run(
        {"pkcs11-tool", "--module", ModulePath(), "--hash", "-m", name, "-i", input, "-o", output});
    ASSERT_EQ(hashed.status, 0) << hashed.err;
    std::string dgst_name = name;
    dgst_name.erase(std::remove(dgst_name.begin(), dgst_name.end(), '-'), dgst_name.end());
    const std::string expected_file = (temp_ / "expected").string();
    const ChildResult dgst =
        Run({OpensslProgram(), "dgst", "-" + dgst_name, "-binary", "-out", expected_file, input});
    ASSERT_EQ(dgst.status, 0) << dgst.err;
    EXPECT_EQ(ReadFileBytes(output), ReadFileBytes(expected_file));
    EXPECT_FALSE(ReadFileBytes(output).empty());
  }
}

}  // namespace
}  // namespace x509auth_test
