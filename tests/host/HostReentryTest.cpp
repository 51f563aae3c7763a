// A call that reaches the library while another is still inside it (here
// from the host's own callbacks) is refused with the function's failure
// result and one error line, and the call in progress finishes unharmed.
#include <cstdarg>
#include <cstring>

#include "ErrorLineLog.h"
#include "HostFixture.h"

namespace x509auth_test {
namespace {

constexpr const char* k_password = "reentry-pass";

struct Inner {
  bool listed = true;
  uint64_t count = 99;
  bool certificates_null = false;
  int32_t sign_code = -1;
  bool signature_null = false;
  int added = -1;
  X509_Auth_ResultCode module_code = X509_Auth_ResultCode_Success;
  X509_Auth_ResultCode watch_code = X509_Auth_ResultCode_Success;
  int calls = 0;
};
Inner g_inner;
const uint8_t* g_thumbprint = nullptr;
const unsigned char* g_digest = nullptr;
std::vector<std::string> g_lines;

void RecordLine(X509_Auth_LogPriority priority, const char* format, va_list arguments) {
  KeepErrorLine(g_lines, priority, format, arguments);
}

// Answers the password prompt, after calling the library from inside it.
X509_Auth_PinEntryResult* ReenteringPinEntry(const char*, const char*) {
  ++g_inner.calls;
  const X509_Auth_Certificate* certificates = reinterpret_cast<const X509_Auth_Certificate*>(1);
  g_inner.listed = X509_Auth_LoadClientCertificates(&g_inner.count, &certificates);
  g_inner.certificates_null = certificates == nullptr;
  const uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa};
  const X509_Auth_Signature* signature = reinterpret_cast<const X509_Auth_Signature*>(1);
  g_inner.sign_code = X509_Auth_SignHash(g_thumbprint, 1, algorithms, X509_Auth_HashType_Sha256,
                                         g_digest, &signature)
                          .code;
  g_inner.signature_null = signature == nullptr;
  g_inner.added = X509_Auth_AddAdditionalCertificateAuthorityToStore(
      reinterpret_cast<const unsigned char*>("x"), 1);
  g_inner.module_code = X509_Auth_SetPkcs11Module("");
  g_inner.watch_code = X509_Auth_SetTokenWatch(1);
  // Would free the key store under the signature in progress.
  X509_Auth_DeInit();

  static X509_Auth_PinEntryResult answer;
  answer.value = k_password;
  answer.status = 0;
  return &answer;
}

// Lists again from inside every line the library writes.
void ReenteringLog(X509_Auth_LogPriority priority, const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  RecordLine(priority, format, copy);
  va_end(copy);
  ++g_inner.calls;
  uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  g_inner.listed = X509_Auth_LoadClientCertificates(&count, &certificates);
}

class HostReentryTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    g_inner = Inner{};
    g_lines.clear();
    ASSERT_EQ(X509_Auth_SetPkcs11Module(""), X509_Auth_ResultCode_Success);
  }

  int CountLines(const std::string& text) const {
    int count = 0;
    for (const std::string& line : g_lines) count += line == text ? 1 : 0;
    return count;
  }
};

std::string RefusalLine(const std::string& function) {
  return function +
         " refused: the library is already inside a call (re-entered from a callback or a "
         "PKCS#11 module, or called from two threads at once)";
}

TEST_F(HostReentryTest, CallsFromInsideThePasswordPromptAreRefusedAndTheSignatureCompletes) {
  const std::filesystem::path base = Base("base");
  std::filesystem::create_directories(base / "certs");
  std::filesystem::create_directories(base / "keys");
  const TestKey key = SharedKey(KeyKind::k_rsa);
  const TestX509 cert = MakeClientCert("Reentry", key.get());
  WriteFile(base / "certs" / "reentry.pem", CertToPem(cert.get()));
  WriteFile(base / "keys" / "reentry.pem.key", KeyToPem(key.get(), k_password));
  Init({base.string()}, {}, X509_Auth_Callbacks{RecordLine, ReenteringPinEntry, nullptr, nullptr});
  const auto records = List();
  ASSERT_EQ(records.size(), 1u);

  const Bytes thumbprint = ThumbprintOf(records[0]);
  const Bytes digest = DigestOf(X509_Auth_HashType_Sha256, "inside and out");
  g_thumbprint = thumbprint.data();
  g_digest = digest.data();
  const uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa};
  const X509_Auth_Signature* signature = nullptr;
  const X509_Auth_Result result = X509_Auth_SignHash(
      thumbprint.data(), 1, algorithms, X509_Auth_HashType_Sha256, digest.data(), &signature);

  ASSERT_EQ(g_inner.calls, 1);
  EXPECT_FALSE(g_inner.listed);
  EXPECT_EQ(g_inner.count, 0u);
  EXPECT_TRUE(g_inner.certificates_null);
  EXPECT_EQ(g_inner.sign_code, X509_Auth_ResultCode_Reentered);
  EXPECT_TRUE(g_inner.signature_null);
  EXPECT_EQ(g_inner.added, 0);
  EXPECT_EQ(g_inner.module_code, X509_Auth_ResultCode_Reentered);
  EXPECT_EQ(g_inner.watch_code, X509_Auth_ResultCode_Reentered);
  for (const char* function :
       {"X509_Auth_LoadClientCertificates", "X509_Auth_SignHash",
        "X509_Auth_AddAdditionalCertificateAuthorityToStore", "X509_Auth_SetPkcs11Module",
        "X509_Auth_SetTokenWatch", "X509_Auth_DeInit"})
    EXPECT_EQ(CountLines(RefusalLine(function)), 1) << function;

  // The outer call was not disturbed: the key store is still there.
  ASSERT_EQ(result.code, X509_Auth_ResultCode_Success);
  ASSERT_NE(signature, nullptr);
  EXPECT_TRUE(VerifiesWithCertificate(cert.get(), EVP_sha256(), digest, signature->data,
                                      signature->length));
  X509_Auth_Free(signature);
  EXPECT_EQ(List().size(), 1u);
}

TEST_F(HostReentryTest, LogCallbackThatCallsTheLibraryIsToldOnceAndTheListingCompletes) {
  const std::filesystem::path base = Base("base");
  std::filesystem::create_directories(base / "certs");
  const TestKey key = SharedKey(KeyKind::k_ec);
  InstallFileCert(base, "ok.pem", MakeClientCert("Listed", key.get()).get(), key.get());
  WriteFile(base / "certs" / "broken.pem", std::string("-----BEGIN CERTIFICATE-----\nxx\n"));
  Init({base.string()}, {}, X509_Auth_Callbacks{ReenteringLog, nullptr, nullptr, nullptr});

  uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  g_lines.clear();
  g_inner.calls = 0;
  ASSERT_TRUE(X509_Auth_LoadClientCertificates(&count, &certificates));
  EXPECT_EQ(count, 1u);
  X509_Auth_Free(certificates);
  ASSERT_GT(g_inner.calls, 0) << "the listing wrote no line to re-enter from";
  EXPECT_FALSE(g_inner.listed);
  // Every inner call was refused; the refusal itself is told once per call,
  // not again from inside its own line.
  EXPECT_EQ(CountLines(RefusalLine("X509_Auth_LoadClientCertificates")), g_inner.calls / 2);
}

}  // namespace
}  // namespace x509auth_test
