// The module in the test process: objects, attributes, mechanisms, login,
// and the lists following the files.
#include <openssl/ecdsa.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include <set>

#include "Pkcs11Session.h"

namespace x509auth_test {
namespace {

const Bytes k_data = {'s', 'i', 'g', 'n', ' ', 'm', 'e'};

Bytes Digest(const EVP_MD* md, const Bytes& data) {
  Bytes digest(EVP_MAX_MD_SIZE);
  unsigned int length = 0;
  EVP_Digest(data.data(), data.size(), digest.data(), &length, md, nullptr);
  digest.resize(length);
  return digest;
}

Bytes Sha256DigestInfo(const Bytes& data) {
  Bytes info = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
  const Bytes digest = Digest(EVP_sha256(), data);
  info.insert(info.end(), digest.begin(), digest.end());
  return info;
}

bool PssVerifies(X509* cert, const EVP_MD* md, const Bytes& digest, const Bytes& signature,
                 int salt) {
  EVP_PKEY* key = X509_get0_pubkey(cert);
  const EvpPkeyCtxPtr owned(EVP_PKEY_CTX_new(key, nullptr));
  EVP_PKEY_CTX* ctx = owned.get();
  return EVP_PKEY_verify_init(ctx) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_signature_md(ctx, md) == 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, md) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, salt) == 1 &&
         EVP_PKEY_verify(ctx, signature.data(), signature.size(), digest.data(), digest.size()) ==
             1;
}

class Pkcs11ModuleTest : public Pkcs11Test {};

TEST_F(Pkcs11ModuleTest,
       EachCertificateIsACertificatePublicKeyAndPrivateKeySharingTheThumbprintAsId) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  const InstalledClient& ec = Install(KeyKind::k_ec, "Bob");
  LoadedModule module;
  ModuleSession s(module);
  for (const InstalledClient* client : {&rsa, &ec}) {
    const CK_OBJECT_HANDLE cert = s.One(CKO_CERTIFICATE, client->thumbprint);
    EXPECT_EQ(s.FindClass(CKO_PUBLIC_KEY, client->thumbprint).size(), 1u);
    const CK_OBJECT_HANDLE priv = s.One(CKO_PRIVATE_KEY, client->thumbprint);
    EXPECT_EQ(s.Attribute(cert, CKA_VALUE), CertToDer(client->cert.get()));
    EXPECT_EQ(s.Attribute(cert, CKA_LABEL), Bytes(client->name.begin(), client->name.end()));
    EXPECT_EQ(s.Attribute(priv, CKA_LABEL), Bytes(client->name.begin(), client->name.end()));
    unsigned char* subject = nullptr;
    const int subject_length = i2d_X509_NAME(X509_get_subject_name(client->cert.get()), &subject);
    const OpenSslBytesPtr owned_subject(subject);
    EXPECT_EQ(s.Attribute(cert, CKA_SUBJECT), Bytes(subject, subject + subject_length));
    unsigned char* serial = nullptr;
    const int serial_length = i2d_ASN1_INTEGER(X509_get_serialNumber(client->cert.get()), &serial);
    const OpenSslBytesPtr owned_serial(serial);
    EXPECT_EQ(s.Attribute(cert, CKA_SERIAL_NUMBER), Bytes(serial, serial + serial_length));
    EXPECT_FALSE(s.Attribute(cert, CKA_ISSUER).empty());
    EXPECT_EQ(s.Attribute(priv, CKA_SENSITIVE), Bytes{CK_TRUE});
    EXPECT_EQ(s.Attribute(priv, CKA_EXTRACTABLE), Bytes{CK_FALSE});
    EXPECT_EQ(s.Attribute(priv, CKA_SIGN), Bytes{CK_TRUE});
    EXPECT_EQ(s.Attribute(priv, CKA_DECRYPT),
              Bytes{static_cast<unsigned char>(client == &rsa ? CK_TRUE : CK_FALSE)});
    const Bytes category = s.Attribute(cert, CKA_CERTIFICATE_CATEGORY);
    ASSERT_EQ(category.size(), sizeof(CK_ULONG));
    EXPECT_EQ(*reinterpret_cast<const CK_ULONG*>(category.data()), 1u);
  }
  // Public values come from the certificate.
  const CK_OBJECT_HANDLE rsa_priv = s.One(CKO_PRIVATE_KEY, rsa.thumbprint);
  const BIGNUM* n = nullptr;
  const BIGNUM* e = nullptr;
  RSA_get0_key(EVP_PKEY_get0_RSA(rsa.key.get()), &n, &e, nullptr);
  Bytes modulus(BN_num_bytes(n));
  BN_bn2bin(n, modulus.data());
  EXPECT_EQ(s.Attribute(rsa_priv, CKA_MODULUS), modulus);
  EXPECT_EQ(s.Attribute(rsa_priv, CKA_PUBLIC_EXPONENT), (Bytes{0x01, 0x00, 0x01}));
  const CK_OBJECT_HANDLE ec_pub = s.One(CKO_PUBLIC_KEY, ec.thumbprint);
  EXPECT_EQ(s.Attribute(ec_pub, CKA_EC_PARAMS),
            (Bytes{0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07}));
  const Bytes point = s.Attribute(ec_pub, CKA_EC_POINT);
  ASSERT_EQ(point.size(), 67u);  // OCTET STRING of an uncompressed P-256 point
  EXPECT_EQ(point[0], 0x04);
  EXPECT_EQ(point[2], 0x04);
}

TEST_F(Pkcs11ModuleTest, CaCertificatesOfEachChainAreAuthorityCertificates) {
  Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  std::set<Bytes> values;
  for (CK_OBJECT_HANDLE cert : s.FindClass(CKO_CERTIFICATE)) {
    const Bytes category = s.Attribute(cert, CKA_CERTIFICATE_CATEGORY);
    if (*reinterpret_cast<const CK_ULONG*>(category.data()) == 2)
      values.insert(s.Attribute(cert, CKA_VALUE));
  }
  EXPECT_EQ(values,
            (std::set<Bytes>{CertToDer(authorities_[0].get()), CertToDer(authorities_[1].get())}));
}

TEST_F(Pkcs11ModuleTest, SignsWithEveryMechanismVerifiedWithTheCertificatesKey) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  const InstalledClient& ec = Install(KeyKind::k_ec, "Bob");
  LoadedModule module;
  ModuleSession s(module);
  const CK_OBJECT_HANDLE rsa_key = s.One(CKO_PRIVATE_KEY, rsa.thumbprint);
  const CK_OBJECT_HANDLE ec_key = s.One(CKO_PRIVATE_KEY, ec.thumbprint);
  X509* rsa_cert = rsa.cert.get();
  X509* ec_cert = ec.cert.get();

  Bytes sig = s.Sign(rsa_key, {CKM_RSA_PKCS, nullptr, 0}, Sha256DigestInfo(k_data));
  EXPECT_TRUE(VerifiesWithCertificate(rsa_cert, EVP_sha256(), Digest(EVP_sha256(), k_data),
                                      sig.data(), sig.size()));
  const struct {
    CK_MECHANISM_TYPE rsa, pss, ecdsa, hash;
    CK_RSA_PKCS_MGF_TYPE mgf;
    const EVP_MD* md;
  } hashes[] = {{CKM_SHA1_RSA_PKCS, CKM_SHA1_RSA_PKCS_PSS, CKM_ECDSA_SHA1, CKM_SHA_1, CKG_MGF1_SHA1,
                 EVP_sha1()},
                {CKM_SHA256_RSA_PKCS, CKM_SHA256_RSA_PKCS_PSS, CKM_ECDSA_SHA256, CKM_SHA256,
                 CKG_MGF1_SHA256, EVP_sha256()},
                {CKM_SHA384_RSA_PKCS, CKM_SHA384_RSA_PKCS_PSS, CKM_ECDSA_SHA384, CKM_SHA384,
                 CKG_MGF1_SHA384, EVP_sha384()},
                {CKM_SHA512_RSA_PKCS, CKM_SHA512_RSA_PKCS_PSS, CKM_ECDSA_SHA512, CKM_SHA512,
                 CKG_MGF1_SHA512, EVP_sha512()}};
  for (const auto& h : hashes) {
    SCOPED_TRACE(EVP_MD_get0_name(h.md));
    const Bytes digest = Digest(h.md, k_data);
    sig = s.Sign(rsa_key, {h.rsa, nullptr, 0}, k_data);
    EXPECT_TRUE(VerifiesWithCertificate(rsa_cert, h.md, digest, sig.data(), sig.size()));
    CK_RSA_PKCS_PSS_PARAMS pss{h.hash, h.mgf, static_cast<CK_ULONG>(EVP_MD_size(h.md))};
    sig = s.Sign(rsa_key, {h.pss, &pss, sizeof(pss)}, k_data);
    EXPECT_TRUE(PssVerifies(rsa_cert, h.md, digest, sig, EVP_MD_size(h.md)));
    sig = s.Sign(rsa_key, {CKM_RSA_PKCS_PSS, &pss, sizeof(pss)}, digest);
    EXPECT_TRUE(PssVerifies(rsa_cert, h.md, digest, sig, EVP_MD_size(h.md)));
    sig = s.Sign(ec_key, {h.ecdsa, nullptr, 0}, k_data);
    EXPECT_TRUE(RawEcdsaVerifies(ec_cert, h.md, digest, sig));
    sig = s.Sign(ec_key, {CKM_ECDSA, nullptr, 0}, digest);
    EXPECT_TRUE(RawEcdsaVerifies(ec_cert, h.md, digest, sig));
  }
}

TEST_F(Pkcs11ModuleTest, MultiPartSigningHashesEveryPart) {
  const InstalledClient& ec = Install(KeyKind::k_ec, "Bob");
  LoadedModule module;
  ModuleSession s(module);
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, ec.thumbprint);
  CK_MECHANISM mechanism{CKM_ECDSA_SHA256, nullptr, 0};
  ASSERT_EQ(s.f()->C_SignInit(s.session(), &mechanism, key), CKR_OK);
  for (std::size_t i = 0; i < k_data.size(); ++i)
    ASSERT_EQ(s.f()->C_SignUpdate(s.session(), const_cast<unsigned char*>(&k_data[i]), 1), CKR_OK);
  CK_ULONG length = 0;
  ASSERT_EQ(s.f()->C_SignFinal(s.session(), nullptr, &length), CKR_OK);
  EXPECT_EQ(length, 64u);
  Bytes sig(length);
  length = 10;
  EXPECT_EQ(s.f()->C_SignFinal(s.session(), sig.data(), &length), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, 64u);
  ASSERT_EQ(s.f()->C_SignFinal(s.session(), sig.data(), &length), CKR_OK);
  EXPECT_TRUE(RawEcdsaVerifies(ec.cert.get(), EVP_sha256(), Digest(EVP_sha256(), k_data), sig));
  EXPECT_EQ(s.f()->C_SignFinal(s.session(), sig.data(), &length), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(Pkcs11ModuleTest, DecryptsPkcs1AndOaepWithSha1) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, rsa.thumbprint);
  const Bytes secret = {'s', 'e', 'c', 'r', 'e', 't'};
  CK_RSA_PKCS_OAEP_PARAMS oaep{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};
  const struct {
    CK_MECHANISM mechanism;
    int padding;
  } cases[] = {{{CKM_RSA_PKCS, nullptr, 0}, RSA_PKCS1_PADDING},
               {{CKM_RSA_PKCS_OAEP, &oaep, sizeof(oaep)}, RSA_PKCS1_OAEP_PADDING}};
  for (const auto& c : cases) {
    Bytes ciphertext = EncryptToCertificate(rsa.cert.get(), c.padding, secret);
    CK_MECHANISM mechanism = c.mechanism;
    ASSERT_EQ(s.f()->C_DecryptInit(s.session(), &mechanism, key), CKR_OK);
    CK_ULONG length = 0;
    ASSERT_EQ(s.f()->C_Decrypt(s.session(), ciphertext.data(), ciphertext.size(), nullptr, &length),
              CKR_OK);
    EXPECT_EQ(length, secret.size());
    Bytes plaintext(length);
    ASSERT_EQ(s.f()->C_Decrypt(s.session(), ciphertext.data(), ciphertext.size(), plaintext.data(),
                               &length),
              CKR_OK);
    EXPECT_EQ(plaintext, secret);
  }
  CK_RSA_PKCS_OAEP_PARAMS sha256{CKM_SHA256, CKG_MGF1_SHA256, CKZ_DATA_SPECIFIED, nullptr, 0};
  CK_MECHANISM mechanism{CKM_RSA_PKCS_OAEP, &sha256, sizeof(sha256)};
  EXPECT_EQ(s.f()->C_DecryptInit(s.session(), &mechanism, key), CKR_MECHANISM_PARAM_INVALID);
}

TEST_F(Pkcs11ModuleTest, MechanismsAreRefusedWhereTheyDoNotApply) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  const InstalledClient& ec = Install(KeyKind::k_ec, "Bob");
  LoadedModule module;
  ModuleSession s(module);
  const CK_OBJECT_HANDLE rsa_key = s.One(CKO_PRIVATE_KEY, rsa.thumbprint);
  const CK_OBJECT_HANDLE ec_key = s.One(CKO_PRIVATE_KEY, ec.thumbprint);
  CK_MECHANISM ecdsa{CKM_ECDSA, nullptr, 0};
  EXPECT_EQ(s.f()->C_SignInit(s.session(), &ecdsa, rsa_key), CKR_KEY_TYPE_INCONSISTENT);
  CK_MECHANISM pkcs1{CKM_RSA_PKCS, nullptr, 0};
  EXPECT_EQ(s.f()->C_DecryptInit(s.session(), &pkcs1, ec_key), CKR_KEY_TYPE_INCONSISTENT);
  CK_MECHANISM unknown{CKM_MD5_RSA_PKCS, nullptr, 0};
  EXPECT_EQ(s.f()->C_SignInit(s.session(), &unknown, rsa_key), CKR_MECHANISM_INVALID);
  CK_RSA_PKCS_PSS_PARAMS mismatch{CKM_SHA256, CKG_MGF1_SHA1, 32};
  CK_MECHANISM pss{CKM_SHA256_RSA_PKCS_PSS, &mismatch, sizeof(mismatch)};
  EXPECT_EQ(s.f()->C_SignInit(s.session(), &pss, rsa_key), CKR_MECHANISM_PARAM_INVALID);
  CK_RSA_PKCS_PSS_PARAMS too_long{CKM_SHA256, CKG_MGF1_SHA256, 4096};
  pss.pParameter = &too_long;
  EXPECT_EQ(s.f()->C_SignInit(s.session(), &pss, rsa_key), CKR_MECHANISM_PARAM_INVALID);
  // CKM_RSA_PKCS signs a DigestInfo, not a bare digest.
  CK_RV rv = CKR_OK;
  s.Sign(rsa_key, pkcs1, Digest(EVP_sha256(), k_data), &rv);
  EXPECT_EQ(rv, CKR_DATA_INVALID);
  CK_MECHANISM_INFO info{};
  ASSERT_EQ(s.f()->C_GetMechanismInfo(s.slot(), CKM_RSA_PKCS, &info), CKR_OK);
  EXPECT_EQ(info.flags, CKF_SIGN | CKF_DECRYPT);
  ASSERT_EQ(s.f()->C_GetMechanismInfo(s.slot(), CKM_ECDSA_SHA256, &info), CKR_OK);
  EXPECT_TRUE(info.flags & CKF_SIGN);
  EXPECT_FALSE(info.flags & CKF_DECRYPT);
  EXPECT_EQ(s.f()->C_GetMechanismInfo(s.slot(), CKM_AES_CBC, &info), CKR_MECHANISM_INVALID);
}

TEST_F(Pkcs11ModuleTest, PrivatePartsAreSensitiveAndUnknownAttributesInvalid) {
  const InstalledClient& rsa = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, rsa.thumbprint);
  unsigned char buffer[512];
  CK_ATTRIBUTE templ[] = {{CKA_PRIVATE_EXPONENT, buffer, sizeof(buffer)},
                          {CKA_PRIME_1, buffer, sizeof(buffer)},
                          {CKA_LABEL, buffer, sizeof(buffer)}};
  EXPECT_EQ(s.f()->C_GetAttributeValue(s.session(), key, templ, 3), CKR_ATTRIBUTE_SENSITIVE);
  EXPECT_EQ(templ[0].ulValueLen, CK_UNAVAILABLE_INFORMATION);
  EXPECT_EQ(templ[1].ulValueLen, CK_UNAVAILABLE_INFORMATION);
  EXPECT_EQ(templ[2].ulValueLen, 5u);  // the others are still given
  CK_ATTRIBUTE unknown{CKA_VALUE_LEN, buffer, sizeof(buffer)};
  EXPECT_EQ(s.f()->C_GetAttributeValue(s.session(), key, &unknown, 1), CKR_ATTRIBUTE_TYPE_INVALID);
  EXPECT_EQ(unknown.ulValueLen, CK_UNAVAILABLE_INFORMATION);
}

TEST_F(Pkcs11ModuleTest, ObjectsFollowTheDirectoryAndHandlesAreNeverReused) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  const CK_OBJECT_HANDLE alice_cert = s.One(CKO_CERTIFICATE, alice.thumbprint);
  std::set<CK_OBJECT_HANDLE> before;
  for (CK_OBJECT_HANDLE h : s.Find({})) before.insert(h);

  const InstalledClient& bob = Install(KeyKind::k_ec, "Bob");
  const CK_OBJECT_HANDLE bob_cert = s.One(CKO_CERTIFICATE, bob.thumbprint);
  EXPECT_EQ(before.count(bob_cert), 0u);
  EXPECT_EQ(s.One(CKO_CERTIFICATE, alice.thumbprint), alice_cert);  // stable

  std::filesystem::remove(alice.cert_file);
  EXPECT_TRUE(s.FindClass(CKO_CERTIFICATE, alice.thumbprint).empty());
  CK_ATTRIBUTE label{CKA_LABEL, nullptr, 0};
  EXPECT_EQ(s.f()->C_GetAttributeValue(s.session(), alice_cert, &label, 1),
            CKR_OBJECT_HANDLE_INVALID);

  // A changed certificate is a new object with a new handle.
  const InstalledClient& carol = Install(KeyKind::k_rsa, "Carol");
  const CK_OBJECT_HANDLE carol_cert = s.One(CKO_CERTIFICATE, carol.thumbprint);
  EXPECT_EQ(before.count(carol_cert), 0u);
  EXPECT_NE(carol_cert, bob_cert);
  // Back again, the same certificate has its old handle.
  WriteFile(alice.cert_file, CertToPem(alice.cert.get()));
  EXPECT_EQ(s.One(CKO_CERTIFICATE, alice.thumbprint), alice_cert);
}

TEST_F(Pkcs11ModuleTest, LoginIsRequiredOnlyWhenAKeyFileIsEncrypted) {
  Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  {
    ModuleSession s(module);
    CK_TOKEN_INFO info{};
    ASSERT_EQ(s.f()->C_GetTokenInfo(s.slot(), &info), CKR_OK);
    EXPECT_FALSE(info.flags & CKF_LOGIN_REQUIRED);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(info.label), 8), "x509auth");
    // No key asks: any PIN will do.
    EXPECT_EQ(s.Login("anything"), CKR_OK);
    EXPECT_EQ(s.FindClass(CKO_PRIVATE_KEY).size(), 1u);
  }
  Install(KeyKind::k_ec, "Bob", "s3cret");
  ModuleSession s(module);
  CK_TOKEN_INFO info{};
  ASSERT_EQ(s.f()->C_GetTokenInfo(s.slot(), &info), CKR_OK);
  EXPECT_TRUE(info.flags & CKF_LOGIN_REQUIRED);
  // Keys are private objects now: found after the login.
  EXPECT_TRUE(s.FindClass(CKO_PRIVATE_KEY).empty());
  EXPECT_EQ(s.Login("wrong"), CKR_PIN_INCORRECT);
  EXPECT_EQ(s.Login("s3cret"), CKR_OK);
  EXPECT_EQ(s.FindClass(CKO_PRIVATE_KEY).size(), 2u);
  CK_SESSION_INFO session_info{};
  ASSERT_EQ(s.f()->C_GetSessionInfo(s.session(), &session_info), CKR_OK);
  EXPECT_EQ(session_info.state, CKS_RO_USER_FUNCTIONS);
}

TEST_F(Pkcs11ModuleTest, ThePinAnswersEveryPromptAndAKeyWithAnotherPasswordFailsWithPinIncorrect) {
  const InstalledClient& first = Install(KeyKind::k_ec, "First", "one");
  const InstalledClient& second = Install(KeyKind::k_rsa, "Second", "two");
  LoadedModule module;
  ModuleSession s(module);
  // Either password logs in; the other key then refuses the PIN.
  ASSERT_EQ(s.Login("two"), CKR_OK);
  CK_RV refused = CKR_OK;
  s.Sign(s.One(CKO_PRIVATE_KEY, first.thumbprint), {CKM_ECDSA_SHA256, nullptr, 0}, k_data,
         &refused);
  EXPECT_EQ(refused, CKR_PIN_INCORRECT);
  ASSERT_EQ(s.f()->C_Logout(s.session()), CKR_OK);
  EXPECT_EQ(s.Login("three"), CKR_PIN_INCORRECT);
  ASSERT_EQ(s.Login("one"), CKR_OK);
  const Bytes digest = Digest(EVP_sha256(), k_data);
  Bytes sig = s.Sign(s.One(CKO_PRIVATE_KEY, first.thumbprint), {CKM_ECDSA, nullptr, 0}, digest);
  EXPECT_TRUE(RawEcdsaVerifies(first.cert.get(), EVP_sha256(), digest, sig));
  CK_RV rv = CKR_OK;
  s.Sign(s.One(CKO_PRIVATE_KEY, second.thumbprint), {CKM_SHA256_RSA_PKCS, nullptr, 0}, k_data, &rv);
  EXPECT_EQ(rv, CKR_PIN_INCORRECT);
}

TEST_F(Pkcs11ModuleTest, SigningWithoutLoginWhereAKeyAsksIsUserNotLoggedIn) {
  const InstalledClient& locked = Install(KeyKind::k_ec, "Locked", "pw");
  LoadedModule module;
  ModuleSession s(module);
  // The handle is known from an earlier login; the login is gone since.
  ASSERT_EQ(s.Login("pw"), CKR_OK);
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, locked.thumbprint);
  ASSERT_EQ(s.f()->C_Logout(s.session()), CKR_OK);
  CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
  EXPECT_EQ(s.f()->C_SignInit(s.session(), &mechanism, key), CKR_USER_NOT_LOGGED_IN);
}

TEST_F(Pkcs11ModuleTest, TokenSerialIsStableForTheSameSettingsAndDiffersForOthers) {
  Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  auto serial = [&] {
    ModuleSession s(module);
    CK_TOKEN_INFO info{};
    EXPECT_EQ(s.f()->C_GetTokenInfo(s.slot(), &info), CKR_OK);
    return std::string(reinterpret_cast<char*>(info.serialNumber), sizeof(info.serialNumber));
  };
  const std::string first = serial();
  EXPECT_EQ(serial(), first);
  setenv("X509AUTH_DIRS", (temp_ / "other").c_str(), 1);
  EXPECT_NE(serial(), first);
}

TEST_F(Pkcs11ModuleTest, SettingsFileIsReadAndTheEnvironmentOverridesIt) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  const std::filesystem::path conf = temp_ / "pkcs11.conf";
  WriteFile(conf, "# settings\ndirs = " + base_.string() + "\nca_files = " + CasFile().string() +
                      "\nhome_dirs =\nlog_level = none\ntoken_certificates = off\n");
  setenv("X509AUTH_PKCS11_CONF", conf.c_str(), 1);
  unsetenv("X509AUTH_DIRS");
  unsetenv("X509AUTH_CA_FILES");
  unsetenv("X509AUTH_LOG");
  LoadedModule module;
  {
    ModuleSession s(module);
    EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, alice.thumbprint).size(), 1u);
  }
  setenv("X509AUTH_DIRS", (temp_ / "empty").c_str(), 1);
  ModuleSession s(module);
  EXPECT_TRUE(s.FindClass(CKO_CERTIFICATE, alice.thumbprint).empty());
}

TEST_F(Pkcs11ModuleTest, RefusesToLoadItselfOrP11KitsProxyAsTheTokenModule) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  setenv("X509AUTH_TOKEN_CERTIFICATES", "on", 1);
  for (const std::string& module_path :
       {ModulePath(), std::string("/usr/lib/x86_64-linux-gnu/p11-kit-proxy.so")}) {
    SCOPED_TRACE(module_path);
    setenv("X509AUTH_MODULE", module_path.c_str(), 1);
    testing::internal::CaptureStderr();
    LoadedModule module;
    {
      ModuleSession s(module);
      // Files only: the file certificate is there.
      EXPECT_EQ(s.FindClass(CKO_CERTIFICATE, alice.thumbprint).size(), 1u);
    }
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("refusing"), std::string::npos) << err;
  }
}

TEST_F(Pkcs11ModuleTest, QuietUnlessTheSettingsAskForLogLines) {
  // A directory that does not exist makes the library log; nobody asked.
  setenv("X509AUTH_DIRS", (temp_ / "missing").c_str(), 1);
  unsetenv("X509AUTH_LOG");
  LoadedModule module;
  testing::internal::CaptureStderr();
  {
    ModuleSession s(module);
    EXPECT_TRUE(s.FindClass(CKO_CERTIFICATE).empty());
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  setenv("X509AUTH_LOG", "warning", 1);
  testing::internal::CaptureStderr();
  {
    ModuleSession s(module);
    s.FindClass(CKO_CERTIFICATE);
  }
  EXPECT_NE(testing::internal::GetCapturedStderr().find("x509auth-pkcs11: [warning]"),
            std::string::npos);
}

TEST_F(Pkcs11ModuleTest, ThePinNeverReachesTheLogEvenAtDebug) {
  const std::string pin = "Distinctive-Pin-4711";
  const InstalledClient& locked = Install(KeyKind::k_ec, "Locked", pin.c_str());
  const InstalledClient& other = Install(KeyKind::k_rsa, "Other", "another-password");
  setenv("X509AUTH_LOG", "debug", 1);
  LoadedModule module;
  testing::internal::CaptureStderr();
  {
    ModuleSession s(module);
    EXPECT_EQ(s.Login("wrong-" + pin), CKR_PIN_INCORRECT);
    ASSERT_EQ(s.Login(pin), CKR_OK);
    s.Sign(s.One(CKO_PRIVATE_KEY, locked.thumbprint), {CKM_ECDSA_SHA256, nullptr, 0}, k_data);
    CK_RV rv = CKR_OK;
    s.Sign(s.One(CKO_PRIVATE_KEY, other.thumbprint), {CKM_SHA256_RSA_PKCS, nullptr, 0}, k_data,
           &rv);
    EXPECT_EQ(rv, CKR_PIN_INCORRECT);
  }
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("x509auth-pkcs11: [debug]"), std::string::npos);
  EXPECT_EQ(err.find(pin), std::string::npos) << err;
}

TEST_F(Pkcs11ModuleTest, OnlyTheUserLogsIn) {
  LoadedModule module;
  ModuleSession s(module);
  unsigned char pin[] = "1234";
  EXPECT_EQ(s.f()->C_Login(s.session(), CKU_SO, pin, 4), CKR_USER_TYPE_INVALID);
  EXPECT_EQ(s.f()->C_Login(s.session(), CKU_CONTEXT_SPECIFIC, pin, 4), CKR_USER_TYPE_INVALID);
  EXPECT_EQ(s.f()->C_Logout(s.session()), CKR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(s.Login("1234"), CKR_OK);
  EXPECT_EQ(s.Login("1234"), CKR_USER_ALREADY_LOGGED_IN);
  EXPECT_EQ(s.f()->C_Logout(s.session()), CKR_OK);
}

}  // namespace
}  // namespace x509auth_test

namespace x509auth_test {
namespace {

// The module's one token never leaves its slot, so there is never a slot
// event to report; a program polling without blocking hears exactly that.
TEST_F(Pkcs11ModuleTest, WaitForSlotEventHasNoEventWithoutBlockingAndCannotBlock) {
  LoadedModule module;
  CK_SLOT_ID slot = 99;
  EXPECT_EQ(module.get()->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr),
            CKR_CRYPTOKI_NOT_INITIALIZED);
  ModuleSession s(module);
  EXPECT_EQ(s.f()->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr), CKR_NO_EVENT);
  EXPECT_EQ(slot, 99u);
  EXPECT_EQ(s.f()->C_WaitForSlotEvent(0, &slot, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(s.f()->C_WaitForSlotEvent(CKF_DONT_BLOCK, nullptr, nullptr), CKR_ARGUMENTS_BAD);
  int reserved = 0;
  EXPECT_EQ(s.f()->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, &reserved), CKR_ARGUMENTS_BAD);
}

}  // namespace
}  // namespace x509auth_test
