// The module as a guest in a program's process: forks while another thread
// is inside a call, the program's own OpenSSL error queue, and running out
// of memory. None of them may hang the program, change what it had, or let
// an exception out.
#include <openssl/err.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "ForkedChild.h"
#include "Pkcs11Session.h"

namespace x509auth_test {
namespace {

// One error of the queue, every part of it, for comparing queues.
std::string DescribeError(unsigned long code, const char* file, int line, const char* function,
                          const char* data, int flags) {
  return std::to_string(ERR_GET_LIB(code)) + ":" + std::to_string(ERR_GET_REASON(code)) + " " +
         file + ":" + std::to_string(line) + " " + function + " [" +
         ((flags & ERR_TXT_STRING) != 0 ? data : "") + "]";
}

// Errors a program has on its queue before calling the module (its own
// failed handshake, say), and their descriptions.
std::vector<std::string> PushProgramErrors(int count) {
  std::vector<std::string> pushed;
  for (int i = 0; i < count; ++i) {
    const std::string data = "program error " + std::to_string(i);
    ERR_new();
    ERR_set_debug("program.c", 100 + i, "ProgramFunction");
    ERR_set_error(ERR_LIB_USER, 200 + i, "%s", data.c_str());
    pushed.push_back(DescribeError(ERR_PACK(ERR_LIB_USER, 0, 200 + i), "program.c", 100 + i,
                                   "ProgramFunction", data.c_str(), ERR_TXT_STRING));
  }
  return pushed;
}

// Takes the whole queue, oldest first.
std::vector<std::string> DrainQueue() {
  std::vector<std::string> errors;
  const char* file = nullptr;
  const char* function = nullptr;
  const char* data = nullptr;
  int line = 0;
  int flags = 0;
  while (const unsigned long code = ERR_get_error_all(&file, &line, &function, &data, &flags))
    errors.push_back(DescribeError(code, file, line, function, data, flags));
  return errors;
}

class Pkcs11HostProcessTest : public Pkcs11Test {
 protected:
  void SetUp() override {
    Pkcs11Test::SetUp();
    ERR_clear_error();
  }
};

// The one object of |object_class| whose CKA_ID is |id|, or
// CK_INVALID_HANDLE when a call fails or not exactly one is found. No gtest
// assertion: children use it.
CK_OBJECT_HANDLE FindOne(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE session,
                         CK_OBJECT_CLASS object_class, const Bytes& id) {
  CK_ATTRIBUTE templ[] = {{CKA_CLASS, &object_class, sizeof(object_class)},
                          {CKA_ID, const_cast<unsigned char*>(id.data()), id.size()}};
  CK_OBJECT_HANDLE found = CK_INVALID_HANDLE;
  CK_ULONG count = 0;
  if (f->C_FindObjectsInit(session, templ, 2) != CKR_OK ||
      f->C_FindObjects(session, &found, 1, &count) != CKR_OK ||
      f->C_FindObjectsFinal(session) != CKR_OK || count != 1)
    return CK_INVALID_HANDLE;
  return found;
}

// What a child forked from a busy program does: its module is not
// initialised; once it is, it finds the key and signs. No gtest assertion
// here: the text returned says what went wrong.
std::string ChildInitialisesFindsAndSigns(CK_FUNCTION_LIST* f, const InstalledClient& client) {
  CK_INFO info{};
  if (f->C_GetInfo(&info) != CKR_CRYPTOKI_NOT_INITIALIZED) return "initialised after fork";
  if (f->C_Initialize(nullptr) != CKR_OK) return "C_Initialize failed";
  CK_SESSION_HANDLE session = 0;
  if (f->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK)
    return "C_OpenSession failed";
  const CK_OBJECT_HANDLE key = FindOne(f, session, CKO_PRIVATE_KEY, client.thumbprint);
  if (key == CK_INVALID_HANDLE) return "the key was not found";
  Bytes digest(32, 0x42);
  Bytes signature(64);
  CK_ULONG length = signature.size();
  CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
  if (f->C_SignInit(session, &mechanism, key) != CKR_OK ||
      f->C_Sign(session, digest.data(), digest.size(), signature.data(), &length) != CKR_OK)
    return "signing failed";
  signature.resize(length);
  if (!RawEcdsaVerifies(client.cert.get(), EVP_sha256(), digest, signature))
    return "the signature does not verify";
  if (f->C_Finalize(nullptr) != CKR_OK) return "C_Finalize failed";
  return "";
}

TEST_F(Pkcs11HostProcessTest,
       ForksWhileAnotherThreadIsInsideACallGiveChildrenThatInitialiseAndSign) {
  const InstalledClient& bob = Install(KeyKind::k_ec, "Bob");
  LoadedModule module;
  CK_FUNCTION_LIST* f = module.get();
  CK_C_INITIALIZE_ARGS args{};
  args.flags = CKF_OS_LOCKING_OK;
  ASSERT_EQ(f->C_Initialize(&args), CKR_OK);
  // A thread that is inside a call nearly all the time: listing and signing.
  std::atomic<bool> stop{false};
  std::atomic<int> rounds{0};
  std::atomic<int> failures{0};
  std::thread busy([&] {
    CK_SESSION_HANDLE session = 0;
    if (f->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK) {
      ++failures;
      return;
    }
    CK_OBJECT_CLASS private_key = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE templ[] = {{CKA_CLASS, &private_key, sizeof(private_key)}};
    while (!stop) {
      CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
      CK_ULONG count = 0;
      unsigned char data[] = "data";
      unsigned char signature[64];
      CK_ULONG length = sizeof(signature);
      CK_MECHANISM mechanism{CKM_ECDSA_SHA256, nullptr, 0};
      if (f->C_FindObjectsInit(session, templ, 1) != CKR_OK ||
          f->C_FindObjects(session, &key, 1, &count) != CKR_OK ||
          f->C_FindObjectsFinal(session) != CKR_OK || count != 1 ||
          f->C_SignInit(session, &mechanism, key) != CKR_OK ||
          f->C_Sign(session, data, 4, signature, &length) != CKR_OK)
        ++failures;
      ++rounds;
    }
  });
  while (rounds == 0) std::this_thread::yield();
  for (int i = 0; i < 20; ++i) {
    ChildOptions options;
    options.alarm_seconds = 30;
    EXPECT_EQ(RunInChild([&] { return ChildInitialisesFindsAndSigns(f, bob); }, options), "")
        << "child " << i;
  }
  stop = true;
  busy.join();
  EXPECT_EQ(failures, 0);
  // The parent's module went on meanwhile.
  CK_INFO info{};
  EXPECT_EQ(f->C_GetInfo(&info), CKR_OK);
  EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK);
}

TEST_F(Pkcs11HostProcessTest, TheProgramsOpenSslErrorsStayAndFailuresAddNone) {
  Install(KeyKind::k_ec, "Locked", "pw");
  const InstalledClient& broken = Install(KeyKind::k_rsa, "Broken");
  // Not a key at all: reading its header is an OpenSSL error, and so is
  // signing with it.
  WriteFile(broken.key_file, std::string("\x30\x82\x7f\xff not a key", 14));
  LoadedModule module;
  ModuleSession s(module);

  std::vector<std::string> program = PushProgramErrors(3);
  EXPECT_FALSE(s.FindClass(CKO_CERTIFICATE).empty());
  EXPECT_EQ(DrainQueue(), program) << "C_FindObjectsInit with a broken key file";

  program = PushProgramErrors(3);
  EXPECT_EQ(s.Login("wrong"), CKR_PIN_INCORRECT);
  EXPECT_EQ(DrainQueue(), program) << "C_Login with a wrong PIN";

  ASSERT_EQ(s.Login("pw"), CKR_OK);
  const CK_OBJECT_HANDLE key = s.One(CKO_PRIVATE_KEY, broken.thumbprint);
  program = PushProgramErrors(3);
  CK_RV rv = CKR_OK;
  s.Sign(key, {CKM_SHA256_RSA_PKCS, nullptr, 0}, {'d', 'a', 't', 'a'}, &rv);
  EXPECT_EQ(rv, CKR_FUNCTION_FAILED);
  EXPECT_EQ(DrainQueue(), program) << "C_Sign failing";

  // An empty queue stays empty, on the same paths.
  ASSERT_EQ(s.f()->C_Logout(s.session()), CKR_OK);
  s.FindClass(CKO_CERTIFICATE);
  EXPECT_EQ(s.Login("wrong"), CKR_PIN_INCORRECT);
  ASSERT_EQ(s.Login("pw"), CKR_OK);
  s.Sign(key, {CKM_SHA256_RSA_PKCS, nullptr, 0}, {'d', 'a', 't', 'a'}, &rv);
  EXPECT_EQ(rv, CKR_FUNCTION_FAILED);
  EXPECT_EQ(DrainQueue(), std::vector<std::string>());
}

TEST_F(Pkcs11HostProcessTest, TheProgramsErrorsStayWhenTheCallMakesMoreThanTheQueueHolds) {
  Install(KeyKind::k_ec, "Locked", "pw");
  LoadedModule module;
  ModuleSession s(module);
  // OpenSSL keeps 16 errors per thread; a wrong password alone makes more
  // than the four left here.
  const std::vector<std::string> program = PushProgramErrors(12);
  EXPECT_EQ(s.Login("wrong"), CKR_PIN_INCORRECT);
  EXPECT_EQ(s.Login("still wrong"), CKR_PIN_INCORRECT);
  EXPECT_EQ(DrainQueue(), program);
}

TEST_F(Pkcs11HostProcessTest, AMarkTheProgramSetBeforeTheCallStillPopsToItsErrors) {
  Install(KeyKind::k_ec, "Locked", "pw");
  LoadedModule module;
  ModuleSession s(module);
  const std::vector<std::string> program = PushProgramErrors(2);
  ASSERT_EQ(ERR_set_mark(), 1);
  EXPECT_EQ(s.Login("wrong"), CKR_PIN_INCORRECT);
  PushProgramErrors(1);
  EXPECT_EQ(ERR_pop_to_mark(), 1);
  EXPECT_EQ(DrainQueue(), program);
}

// The size of the process's address space now, in bytes.
unsigned long long AddressSpace() {
  std::ifstream statm("/proc/self/statm");
  unsigned long long pages = 0;
  statm >> pages;
  return pages * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
}

TEST_F(Pkcs11HostProcessTest, RunningOutOfMemoryInACallIsHostMemoryAndTheNextCallWorks) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's allocator ends the process instead of failing an allocation";
#endif
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  // A settings file of nearly 4 MiB, read whole at C_Initialize.
  const std::filesystem::path conf = temp_ / "pkcs11.conf";
  WriteFile(conf, "# " + std::string(4 * 1024 * 1024 - 64, 'x') + "\n");
  setenv("X509AUTH_PKCS11_CONF", conf.c_str(), 1);
  const std::string report = RunInChild([&]() -> std::string {
    LoadedModule module;
    CK_FUNCTION_LIST* f = module.get();
    rlimit before{};
    getrlimit(RLIMIT_AS, &before);
    // Room for small allocations, not for the settings file.
    rlimit tight = before;
    tight.rlim_cur = AddressSpace() + 1024 * 1024;
    if (setrlimit(RLIMIT_AS, &tight) != 0) return "setrlimit failed";
    const CK_RV starved = f->C_Initialize(nullptr);
    setrlimit(RLIMIT_AS, &before);
    if (starved != CKR_HOST_MEMORY) return "C_Initialize gave " + std::to_string(starved);
    CK_INFO info{};
    if (f->C_GetInfo(&info) != CKR_CRYPTOKI_NOT_INITIALIZED) return "initialised after failing";
    if (f->C_Initialize(nullptr) != CKR_OK) return "C_Initialize failed with memory again";
    CK_SESSION_HANDLE session = 0;
    if (f->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK ||
        FindOne(f, session, CKO_CERTIFICATE, alice.thumbprint) == CK_INVALID_HANDLE)
      return "the certificate was not found";
    f->C_Finalize(nullptr);
    return "";
  });
  EXPECT_EQ(report, "");
}

}  // namespace
}  // namespace x509auth_test
