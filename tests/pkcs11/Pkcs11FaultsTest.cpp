// Faults a program can cause: calls before C_Initialize or after
// C_Finalize, a forked child, null pointers, buffers too small, unknown
// handles, a certificate deleted between finding and signing. Each ends in
// a defined CKR_*, never a crash.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "Pkcs11Session.h"

namespace x509auth_test {
namespace {

class Pkcs11FaultsTest : public Pkcs11Test {};

TEST_F(Pkcs11FaultsTest, EveryCallBeforeInitializeOrAfterFinalizeIsNotInitialized) {
  LoadedModule module;
  CK_FUNCTION_LIST* f = module.get();
  CK_INFO info{};
  EXPECT_EQ(f->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
  CK_ULONG count = 0;
  EXPECT_EQ(f->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_CRYPTOKI_NOT_INITIALIZED);
  CK_SESSION_HANDLE session = 0;
  EXPECT_EQ(f->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &session),
            CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(f->C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  ASSERT_EQ(f->C_Initialize(nullptr), CKR_OK);
  EXPECT_EQ(f->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
  EXPECT_EQ(f->C_GetInfo(&info), CKR_OK);
  EXPECT_EQ(info.cryptokiVersion.major, 2);
  EXPECT_EQ(info.cryptokiVersion.minor, 40);
  ASSERT_EQ(f->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(f->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(f->C_FindObjectsInit(1, nullptr, 0), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(Pkcs11FaultsTest, InitializeArgumentsAreChecked) {
  LoadedModule module;
  CK_FUNCTION_LIST* f = module.get();
  CK_C_INITIALIZE_ARGS args{};
  args.pReserved = &args;
  EXPECT_EQ(f->C_Initialize(&args), CKR_ARGUMENTS_BAD);
  args = {};
  args.CreateMutex = [](void**) -> CK_RV { return CKR_OK; };
  EXPECT_EQ(f->C_Initialize(&args), CKR_ARGUMENTS_BAD);  // only some of the four
  args = {};
  args.flags = CKF_OS_LOCKING_OK;
  EXPECT_EQ(f->C_Initialize(&args), CKR_OK);
  EXPECT_EQ(f->C_Finalize(&args), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK);
}

TEST_F(Pkcs11FaultsTest, AForkedChildMustInitializeAgain) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // No gtest assertions in the child: its exit status says what it saw.
    CK_INFO info{};
    int status = 0;
    if (s.f()->C_GetInfo(&info) != CKR_CRYPTOKI_NOT_INITIALIZED) status |= 1;
    if (s.f()->C_Initialize(nullptr) != CKR_OK) status |= 2;
    CK_SESSION_HANDLE session = 0;
    if (s.f()->C_OpenSession(s.slot(), CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK)
      status |= 4;
    CK_OBJECT_CLASS cls = CKO_CERTIFICATE;
    CK_ATTRIBUTE templ[] = {
        {CKA_CLASS, &cls, sizeof(cls)},
        {CKA_ID, const_cast<unsigned char*>(alice.thumbprint.data()), alice.thumbprint.size()}};
    CK_OBJECT_HANDLE found[2];
    CK_ULONG count = 0;
    if (s.f()->C_FindObjectsInit(session, templ, 2) != CKR_OK ||
        s.f()->C_FindObjects(session, found, 2, &count) != CKR_OK || count != 1)
      status |= 8;
    if (s.f()->C_Finalize(nullptr) != CKR_OK) status |= 16;
    _exit(status);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  // The parent's module goes on.
  CK_INFO info{};
  EXPECT_EQ(s.f()->C_GetInfo(&info), CKR_OK);
}

TEST_F(Pkcs11FaultsTest, EveryNullPointerIsArgumentsBad) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  CK_FUNCTION_LIST* f = s.f();
  const CK_SESSION_HANDLE h = s.session();
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, alice.thumbprint);
  auto get = reinterpret_cast<CK_C_GetFunctionList>(f->C_GetFunctionList);
  EXPECT_EQ(get(nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_GetSlotList(CK_TRUE, nullptr, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_GetSlotInfo(s.slot(), nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_GetTokenInfo(s.slot(), nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_GetMechanismList(s.slot(), nullptr, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_GetMechanismInfo(s.slot(), CKM_RSA_PKCS, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_OpenSession(s.slot(), CKF_SERIAL_SESSION, nullptr, nullptr, nullptr),
            CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_GetSessionInfo(h, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_Login(h, CKU_USER, nullptr, 4), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_GetAttributeValue(h, key, nullptr, 1), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_GetObjectSize(h, key, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_FindObjectsInit(h, nullptr, 1), CKR_ARGUMENTS_BAD);
  CK_ATTRIBUTE null_value{CKA_LABEL, nullptr, 5};
  EXPECT_EQ(f->C_FindObjectsInit(h, &null_value, 1), CKR_ARGUMENTS_BAD);
  ASSERT_EQ(f->C_FindObjectsInit(h, nullptr, 0), CKR_OK);
  CK_ULONG count = 0;
  EXPECT_EQ(f->C_FindObjects(h, nullptr, 1, &count), CKR_ARGUMENTS_BAD);
  CK_OBJECT_HANDLE found = 0;
  EXPECT_EQ(f->C_FindObjects(h, &found, 1, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_FindObjectsFinal(h), CKR_OK);
  EXPECT_EQ(f->C_SignInit(h, nullptr, key), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_DecryptInit(h, nullptr, key), CKR_ARGUMENTS_BAD);
  CK_MECHANISM mechanism{CKM_SHA256_RSA_PKCS, nullptr, 0};
  ASSERT_EQ(f->C_SignInit(h, &mechanism, key), CKR_OK);
  unsigned char data[4] = {1, 2, 3, 4};
  EXPECT_EQ(f->C_Sign(h, data, sizeof(data), nullptr, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_Sign(h, nullptr, 4, nullptr, &count), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_SignUpdate(h, nullptr, 4), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_SignFinal(h, nullptr, nullptr), CKR_ARGUMENTS_BAD);
  CK_MECHANISM pss{CKM_RSA_PKCS_PSS, nullptr, 0};
  CK_SESSION_HANDLE other = 0;
  ASSERT_EQ(f->C_OpenSession(s.slot(), CKF_SERIAL_SESSION, nullptr, nullptr, &other), CKR_OK);
  EXPECT_EQ(f->C_SignInit(other, &pss, key),
            CKR_MECHANISM_PARAM_INVALID);  // PSS without its parameters
  CK_MECHANISM pkcs1{CKM_RSA_PKCS, nullptr, 0};
  ASSERT_EQ(f->C_DecryptInit(other, &pkcs1, key), CKR_OK);
  EXPECT_EQ(f->C_Decrypt(other, data, sizeof(data), nullptr, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_Decrypt(other, nullptr, 4, nullptr, &count), CKR_ARGUMENTS_BAD);
}

TEST_F(Pkcs11FaultsTest, UnknownSessionAndObjectHandlesAreInvalid) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  CK_FUNCTION_LIST* f = s.f();
  const CK_SESSION_HANDLE bad = s.session() + 1000;
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, alice.thumbprint);
  CK_SESSION_INFO info{};
  EXPECT_EQ(f->C_GetSessionInfo(bad, &info), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(f->C_CloseSession(bad), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(f->C_FindObjectsInit(bad, nullptr, 0), CKR_SESSION_HANDLE_INVALID);
  CK_MECHANISM mechanism{CKM_SHA256_RSA_PKCS, nullptr, 0};
  EXPECT_EQ(f->C_SignInit(bad, &mechanism, key), CKR_SESSION_HANDLE_INVALID);
  unsigned char pin[] = "1234";
  EXPECT_EQ(f->C_Login(bad, CKU_USER, pin, 4), CKR_SESSION_HANDLE_INVALID);
  CK_ATTRIBUTE label{CKA_LABEL, nullptr, 0};
  EXPECT_EQ(f->C_GetAttributeValue(bad, key, &label, 1), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(f->C_GetAttributeValue(s.session(), 99999, &label, 1), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(f->C_SignInit(s.session(), &mechanism, 99999), CKR_KEY_HANDLE_INVALID);
  // A certificate is not a key.
  EXPECT_EQ(f->C_SignInit(s.session(), &mechanism, s.One(CKO_CERTIFICATE, alice.thumbprint)),
            CKR_KEY_HANDLE_INVALID);
  CK_SLOT_INFO slot{};
  EXPECT_EQ(f->C_GetSlotInfo(42, &slot), CKR_SLOT_ID_INVALID);
  CK_SESSION_HANDLE session = 0;
  EXPECT_EQ(f->C_OpenSession(s.slot(), 0, nullptr, nullptr, &session),
            CKR_SESSION_PARALLEL_NOT_SUPPORTED);
  // A closed session's handle stays invalid.
  ASSERT_EQ(f->C_OpenSession(s.slot(), CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
  ASSERT_EQ(f->C_CloseSession(session), CKR_OK);
  EXPECT_EQ(f->C_GetSessionInfo(session, &info), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(f->C_GenerateRandom(bad, pin, 4), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(f->C_CreateObject(s.session(), nullptr, 0, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
}

TEST_F(Pkcs11FaultsTest, BuffersTooSmallGetTheLengthAndKeepTheOperation) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  CK_FUNCTION_LIST* f = s.f();
  CK_ULONG count = 0;
  CK_SLOT_ID slots[1];
  EXPECT_EQ(f->C_GetSlotList(CK_TRUE, slots, &count), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(count, 1u);
  CK_MECHANISM_TYPE mechanisms[2];
  count = 2;
  EXPECT_EQ(f->C_GetMechanismList(s.slot(), mechanisms, &count), CKR_BUFFER_TOO_SMALL);
  EXPECT_GT(count, 2u);
  const CK_OBJECT_HANDLE cert = s.One(CKO_CERTIFICATE, alice.thumbprint);
  unsigned char small[4];
  CK_ATTRIBUTE value{CKA_VALUE, small, sizeof(small)};
  EXPECT_EQ(f->C_GetAttributeValue(s.session(), cert, &value, 1), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(value.ulValueLen, CK_UNAVAILABLE_INFORMATION);

  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, alice.thumbprint);
  CK_MECHANISM mechanism{CKM_SHA256_RSA_PKCS, nullptr, 0};
  ASSERT_EQ(f->C_SignInit(s.session(), &mechanism, key), CKR_OK);
  unsigned char data[] = "data";
  Bytes signature(16);
  CK_ULONG length = signature.size();
  EXPECT_EQ(f->C_Sign(s.session(), data, 4, signature.data(), &length), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, 256u);
  signature.resize(length);
  ASSERT_EQ(f->C_Sign(s.session(), data, 4, signature.data(), &length), CKR_OK);
  const Bytes digest = {0x3a, 0x6e, 0xb0, 0x79, 0x0f, 0x39, 0xac, 0x87, 0xc9, 0x4f, 0x38,
                        0x56, 0xb2, 0xdd, 0x2c, 0x5d, 0x11, 0x0e, 0x68, 0x11, 0x60, 0x22,
                        0x61, 0xa9, 0xa9, 0x23, 0xd3, 0xbb, 0x23, 0xad, 0xc8, 0xb7};
  EXPECT_TRUE(
      VerifiesWithCertificate(alice.cert.get(), EVP_sha256(), digest, signature.data(), length));
  EXPECT_EQ(f->C_Sign(s.session(), data, 4, signature.data(), &length),
            CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(Pkcs11FaultsTest, ACertificateDeletedBetweenFindingAndSigningFailsTheSignature) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  LoadedModule module;
  ModuleSession s(module);
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, alice.thumbprint);
  CK_MECHANISM mechanism{CKM_SHA256_RSA_PKCS, nullptr, 0};
  ASSERT_EQ(s.f()->C_SignInit(s.session(), &mechanism, key), CKR_OK);
  std::filesystem::remove(alice.cert_file);
  std::filesystem::remove(alice.key_file);
  unsigned char data[] = "data";
  Bytes signature(256);
  CK_ULONG length = signature.size();
  EXPECT_EQ(s.f()->C_Sign(s.session(), data, 4, signature.data(), &length), CKR_FUNCTION_FAILED);
  // The operation has ended; the next search no longer has the key.
  EXPECT_EQ(s.f()->C_Sign(s.session(), data, 4, signature.data(), &length),
            CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_TRUE(s.FindClass(CKO_PRIVATE_KEY).empty());
  EXPECT_EQ(s.f()->C_SignInit(s.session(), &mechanism, key), CKR_KEY_HANDLE_INVALID);
}

TEST_F(Pkcs11FaultsTest, ConcurrentSessionsOnThreadsAllSign) {
  const InstalledClient& bob = Install(KeyKind::k_ec, "Bob");
  LoadedModule module;
  CK_C_INITIALIZE_ARGS args{};
  args.flags = CKF_OS_LOCKING_OK;
  CK_FUNCTION_LIST* f = module.get();
  ASSERT_EQ(f->C_Initialize(&args), CKR_OK);
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      CK_SESSION_HANDLE session = 0;
      if (f->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK) return;
      CK_OBJECT_CLASS cls = CKO_PRIVATE_KEY;
      CK_ATTRIBUTE templ[] = {{CKA_CLASS, &cls, sizeof(cls)}};
      for (int i = 0; i < 10; ++i) {
        CK_OBJECT_HANDLE key = 0;
        CK_ULONG count = 0;
        if (f->C_FindObjectsInit(session, templ, 1) != CKR_OK ||
            f->C_FindObjects(session, &key, 1, &count) != CKR_OK ||
            f->C_FindObjectsFinal(session) != CKR_OK || count != 1)
          return;
        CK_MECHANISM mechanism{CKM_ECDSA_SHA256, nullptr, 0};
        unsigned char data[] = "data";
        unsigned char signature[64];
        CK_ULONG length = sizeof(signature);
        if (f->C_SignInit(session, &mechanism, key) != CKR_OK ||
            f->C_Sign(session, data, 4, signature, &length) != CKR_OK || length != 64)
          return;
      }
      ++good;
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, 4);
  EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK);
  (void)bob;
}

}  // namespace
}  // namespace x509auth_test

namespace x509auth_test {
namespace {

class Pkcs11ConventionsTest : public Pkcs11Test {};

TEST_F(Pkcs11ConventionsTest, RandomFunctionsSayTheTokenHasNoGenerator) {
  LoadedModule module;
  ModuleSession s(module);
  CK_FUNCTION_LIST* f = s.f();
  unsigned char buffer[16] = {};
  EXPECT_EQ(f->C_GenerateRandom(s.session(), buffer, sizeof(buffer)), CKR_RANDOM_NO_RNG);
  EXPECT_EQ(f->C_SeedRandom(s.session(), buffer, sizeof(buffer)), CKR_RANDOM_NO_RNG);
  EXPECT_EQ(f->C_GenerateRandom(s.session(), nullptr, 4), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_SeedRandom(s.session(), nullptr, 4), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(f->C_SeedRandom(s.session() + 100, buffer, 4), CKR_SESSION_HANDLE_INVALID);
}

TEST_F(Pkcs11ConventionsTest, ANullPinWithALengthIsArgumentsBadWhenAKeyAsksForOne) {
  Install(KeyKind::k_rsa, "Alice", "s3cret");
  LoadedModule module;
  ModuleSession s(module);
  EXPECT_EQ(s.f()->C_Login(s.session(), CKU_USER, nullptr, 6), CKR_ARGUMENTS_BAD);
  CK_SESSION_INFO info{};
  ASSERT_EQ(s.f()->C_GetSessionInfo(s.session(), &info), CKR_OK);
  EXPECT_EQ(info.state, static_cast<CK_STATE>(CKS_RO_PUBLIC_SESSION));
  EXPECT_EQ(s.Login("s3cret"), CKR_OK);
}

}  // namespace
}  // namespace x509auth_test
