// What the provider owes the programs it runs in: no exception ever leaves
// it, the host's error queue holds after a call what it held before (plus
// the provider's one error when the call failed), planted CA files neither
// hang nor exhaust it, its locks survive fork() in any thread, and a
// set-user-ID host is not steered by its caller's environment.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <new>
#include <stdexcept>

#include "DispatchCast.h"
#include "ForkedChild.h"
#include "ProviderInProcessFixture.h"

namespace x509auth_test {
namespace {

struct QueuedError {
  unsigned long code = 0;
  std::string text;  // ERR_error_string_n's line
  std::string data;
};

// Takes every queued error off the queue, oldest first.
std::vector<QueuedError> TakeErrors() {
  std::vector<QueuedError> errors;
  unsigned long code;
  const char* data = nullptr;
  int flags = 0;
  while ((code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) != 0) {
    QueuedError error;
    error.code = code;
    char line[512];
    ERR_error_string_n(code, line, sizeof line);
    error.text = line;
    if (data != nullptr && (flags & ERR_TXT_STRING) != 0) error.data = data;
    errors.push_back(std::move(error));
  }
  return errors;
}

std::string Describe(const std::vector<QueuedError>& errors) {
  std::string text;
  for (const QueuedError& error : errors) text += error.text + " [" + error.data + "]\n";
  return text;
}

constexpr int k_application_reason = 42;
constexpr const char* k_application_data = "the application's own error";

void QueueApplicationError() {
  ERR_clear_error();
  ERR_raise_data(ERR_LIB_USER, k_application_reason, "%s", k_application_data);
}

bool IsApplicationError(const QueuedError& error) {
  return ERR_GET_LIB(error.code) == ERR_LIB_USER &&
         ERR_GET_REASON(error.code) == k_application_reason && error.data == k_application_data;
}

// Entry points of OpenSSL's own types that throw, as the provider's would
// on running out of memory or on a broken invariant.
OSSL_FUNC_keymgmt_has_fn ThrowingHas;
OSSL_FUNC_keymgmt_new_fn ThrowingNew;
OSSL_FUNC_keymgmt_free_fn ThrowingFree;
int ThrowingHas(const void*, int) { throw std::bad_alloc(); }
void* ThrowingNew(void*) { throw std::runtime_error("a broken invariant"); }
void ThrowingFree(void*) { throw 42; }

// The process's address space in bytes, as the kernel counts it against
// RLIMIT_AS.
std::uint64_t AddressSpaceBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmSize:", 0) == 0) return std::stoull(line.substr(7)) * 1024;
  return 0;
}

using ProviderHostSafetyTest = ProviderInProcessTest;

TEST_F(ProviderHostSafetyTest, AnExceptionReachingAnEntryPointFailsThatCallWithOneProviderError) {
  InstallClient(KeyKind::k_ec, "EC Client");
  auto loaded = Load(base_);
  QueueApplicationError();
  EXPECT_EQ(x509auth_provider::Guarded<ThrowingHas>::Call(nullptr, 0), 0);
  EXPECT_EQ(x509auth_provider::Guarded<ThrowingNew>::Call(nullptr), nullptr);
  x509auth_provider::Guarded<ThrowingFree>::Call(nullptr);
  const std::vector<QueuedError> errors = TakeErrors();
  ASSERT_EQ(errors.size(), 4u) << Describe(errors);
  EXPECT_TRUE(IsApplicationError(errors[0])) << Describe(errors);
  const char* const expected[] = {"ThrowingHas: std::bad_alloc", "ThrowingNew: a broken invariant",
                                  "ThrowingFree: an exception of unknown type"};
  for (int i = 0; i < 3; ++i) {
    EXPECT_NE(errors[i + 1].text.find("the x509auth provider failed unexpectedly"),
              std::string::npos)
        << errors[i + 1].text;
    EXPECT_EQ(errors[i + 1].data, expected[i]);
  }
}

TEST_F(ProviderHostSafetyTest, RunningOutOfMemoryInAStoreLoadFailsTheLoadAndTheHostCarriesOn) {
#ifdef X509AUTH_TEST_ASAN_RUNTIME
  GTEST_SKIP() << "AddressSanitizer reserves terabytes of address space and ends the process "
                  "when an allocation fails: no RLIMIT_AS can make new throw";
#endif
  InstallClient(KeyKind::k_rsa, "RSA Client");
  // A CA file the provider may read (4 MiB, the most it reads), and the
  // real CAs after it.
  const std::filesystem::path large = temp_ / "large-ca.der";
  WriteFile(large, std::string());
  std::filesystem::resize_file(large, 4 * 1024 * 1024);
  const std::string report = RunInChild([&]() -> std::string {
    // The library session and OpenSSL's tables are set up by a first
    // context, so that the second one's first load allocates little but the
    // CA file's 4 MiB.
    auto first = Load(base_);
    Answer answer;
    if (LoadAll(*first, "x509auth:", &answer).size() != 1) return "no warm-up listing";
    auto second = Load(base_, large.string() + ":" + CasFile().string());
    OsslStoreCtxPtr store(OSSL_STORE_open_ex("x509auth:", second->ctx, nullptr, ui_.get(), &answer,
                                             nullptr, nullptr, nullptr));
    if (store == nullptr) return "store not opened: " + ErrorText();
    ERR_clear_error();
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    const rlim_t unlimited = limit.rlim_cur;
    limit.rlim_cur = AddressSpaceBytes() + 2 * 1024 * 1024;
    if (setrlimit(RLIMIT_AS, &limit) != 0) return "setrlimit failed";
    // Free blocks of 4 MiB that earlier work left in the heap would serve
    // the read without new address space: taken first.
    std::vector<Bytes> held;
    held.reserve(256);
    try {
      while (held.size() < held.capacity()) held.emplace_back(4 * 1024 * 1024);
    } catch (const std::bad_alloc&) {
    }
    OsslStoreInfoPtr info(OSSL_STORE_load(store.get()));
    held.clear();
    limit.rlim_cur = unlimited;
    setrlimit(RLIMIT_AS, &limit);
    if (info != nullptr) return "the load succeeded with 2 MiB to spare";
    const std::vector<QueuedError> errors = TakeErrors();
    if (errors.size() != 1 ||
        errors[0].text.find("the x509auth provider failed unexpectedly") == std::string::npos ||
        errors[0].data != "Load: std::bad_alloc")
      return "errors after the failed load: " + Describe(errors);
    // The next call reads the CA files again, and this time they are used.
    const std::vector<OsslStoreInfoPtr> listed = LoadAll(*second, "x509auth:", &answer);
    if (listed.size() != 1) return "listed " + std::to_string(listed.size()) + " afterwards";
    if (ERR_peek_error() != 0) return "errors after the listing: " + ErrorText();
    return "ok";
  });
  EXPECT_EQ(report, "ok");
}

TEST_F(ProviderHostSafetyTest, FailedStoreLoadsLeaveTheHostsErrorsAndTheProvidersOneError) {
  const std::string locked = InstallClient(KeyKind::k_ec, "Locked Client", "s3cret");
  auto loaded = Load(base_);
  const struct {
    std::string uri;
    const char* answer;
    const char* reason;
  } failures[] = {
      {"x509auth:thumbprint=" + locked, "wrong",
       "the private key could not be opened (a wrong PIN or password, or no key)"},
      {"x509auth:thumbprint=" + std::string(40, '0'), "s3cret",
       "no offered certificate has this thumbprint"},
  };
  for (const auto& failure : failures) {
    QueueApplicationError();
    Answer answer{failure.answer};
    const std::vector<OsslStoreInfoPtr> infos = LoadAll(*loaded, failure.uri, &answer);
    for (const OsslStoreInfoPtr& info : infos)
      EXPECT_NE(OSSL_STORE_INFO_get_type(info.get()), OSSL_STORE_INFO_PKEY) << failure.uri;
    const std::vector<QueuedError> errors = TakeErrors();
    ASSERT_EQ(errors.size(), 2u) << failure.uri << "\n" << Describe(errors);
    EXPECT_TRUE(IsApplicationError(errors[0])) << Describe(errors);
    EXPECT_NE((errors[1].text + errors[1].data).find(failure.reason), std::string::npos)
        << Describe(errors);
  }
  // The right password: the certificate and its key, and nothing queued.
  ERR_clear_error();
  Answer answer{"s3cret"};
  EXPECT_EQ(LoadAll(*loaded, "x509auth:thumbprint=" + locked, &answer).size(), 2u);
  EXPECT_EQ(LoadAll(*loaded, "x509auth:", &answer).size(), 1u);
  EXPECT_EQ(ERR_peek_error(), 0u) << ErrorText();
}

TEST_F(ProviderHostSafetyTest, AFailedSignatureLeavesTheHostsErrorsAndTheProvidersOneError) {
  const std::string thumbprint = LoadRsaClient();
  ASSERT_NE(rsa_key_, nullptr) << ErrorText();
  // The library reads the key file for each signature: without it, the
  // library's call fails.
  const std::filesystem::path key_file = base_ / "keys" / "RSA Client.pem.key";
  const std::filesystem::path moved = temp_ / "moved.key";
  std::filesystem::rename(key_file, moved);
  QueueApplicationError();
  EXPECT_FALSE(SignsAndVerifies(*clients_, rsa_key_.get(), "SHA256", chains_[0].leaf.get()));
  const std::vector<QueuedError> errors = TakeErrors();
  ASSERT_EQ(errors.size(), 2u) << Describe(errors);
  EXPECT_TRUE(IsApplicationError(errors[0])) << Describe(errors);
  EXPECT_NE(errors[1].text.find("signing through x509auth failed"), std::string::npos)
      << Describe(errors);
  EXPECT_NE(errors[1].data.find("thumbprint=" + thumbprint + ": X509_Auth_SignHash result"),
            std::string::npos)
      << Describe(errors);
  // Back in place, the next signature works and queues nothing.
  std::filesystem::rename(moved, key_file);
  EXPECT_TRUE(SignsAndVerifies(*clients_, rsa_key_.get(), "SHA256", chains_[0].leaf.get()));
  EXPECT_EQ(ERR_peek_error(), 0u) << ErrorText();
}

TEST_F(ProviderHostSafetyTest, RefusedRequestsLeaveTheHostsErrorsAndTheProvidersOneError) {
  LoadRsaClient();
  ASSERT_NE(rsa_key_, nullptr) << ErrorText();
  // A digest nobody knows, set on the provider's signature directly: the
  // lines of its failed lookup are not the host's.
  const EvpPkeyCtxPtr signer(EVP_PKEY_CTX_new_from_pkey(clients_->ctx, rsa_key_.get(), nullptr));
  ASSERT_EQ(EVP_PKEY_sign_init(signer.get()), 1);
  QueueApplicationError();
  char unknown[] = "NO-SUCH-DIGEST";
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_SIGNATURE_PARAM_DIGEST, unknown, 0),
      OSSL_PARAM_construct_end()};
  EXPECT_NE(EVP_PKEY_CTX_set_params(signer.get(), params), 1);
  std::vector<QueuedError> errors = TakeErrors();
  ASSERT_EQ(errors.size(), 2u) << Describe(errors);
  EXPECT_TRUE(IsApplicationError(errors[0])) << Describe(errors);
  EXPECT_NE(errors[1].text.find("unsupported digest"), std::string::npos) << Describe(errors);
  EXPECT_EQ(errors[1].data, "digest NO-SUCH-DIGEST");
  // More than the key can encrypt.
  QueueApplicationError();
  const EvpPkeyCtxPtr encrypter(EVP_PKEY_CTX_new_from_pkey(clients_->ctx, rsa_key_.get(), nullptr));
  ASSERT_EQ(EVP_PKEY_encrypt_init(encrypter.get()), 1);
  const Bytes plain(300, 0x55);
  Bytes cipher(512);
  std::size_t length = cipher.size();
  EXPECT_NE(EVP_PKEY_encrypt(encrypter.get(), cipher.data(), &length, plain.data(), plain.size()),
            1);
  errors = TakeErrors();
  ASSERT_EQ(errors.size(), 2u) << Describe(errors);
  EXPECT_TRUE(IsApplicationError(errors[0])) << Describe(errors);
  EXPECT_EQ(errors[1].data, "300 bytes could not be encrypted with the certificate's 256-byte key")
      << Describe(errors);
  // What fits is encrypted, and nothing is queued.
  length = cipher.size();
  EXPECT_EQ(EVP_PKEY_encrypt(encrypter.get(), cipher.data(), &length, plain.data(), 100), 1);
  EXPECT_EQ(length, 256u);
  EXPECT_EQ(ERR_peek_error(), 0u) << ErrorText();
}

TEST_F(ProviderHostSafetyTest, ChildrenForkedWhileAThreadIsInsideTheProviderCanUseIt) {
#ifdef X509AUTH_TEST_ASAN_RUNTIME
  GTEST_SKIP() << "AddressSanitizer's allocator lock is not taken around fork(): a child "
                  "forked while the worker allocates hangs in malloc, whatever the provider does";
#endif
  LoadRsaClient();
  ASSERT_NE(rsa_key_, nullptr) << ErrorText();
  ASSERT_TRUE(SignsAndVerifies(*clients_, rsa_key_.get(), "SHA256", chains_[0].leaf.get()));
  std::atomic<bool> stop{false};
  std::atomic<int> rounds{0}, failures{0};
  // The worker signs, which keeps it inside the library most of the time.
  // It opens no stores: OpenSSL 3.0 itself takes a process-wide write lock
  // in every OSSL_STORE_open_ex (its loader registry) and has no fork
  // handlers, so a child could inherit that one held, whatever the provider
  // does.
  std::thread worker([&] {
    while (!stop) {
      if (!SignsAndVerifies(*clients_, rsa_key_.get(), "SHA256", chains_[0].leaf.get())) ++failures;
      ++rounds;
    }
  });
  int succeeded = 0;
  for (int child = 0; child < 20; ++child) {
    // Let the worker get back into the provider before the next fork.
    const int before = rounds;
    while (rounds == before && failures == 0) std::this_thread::yield();
    ChildOptions options;
    options.alarm_seconds = 10;
    const std::string report = RunInChild(
        [&]() -> std::string {
          Answer child_answer;
          const std::vector<OsslStoreInfoPtr> listed =
              LoadAll(*clients_, "x509auth:", &child_answer);
          if (listed.size() != 1) return "listed " + std::to_string(listed.size());
          // What the parent did before: OpenSSL's own method cache may be
          // locked for reading by the worker, which a new entry would wait on.
          if (!SignsAndVerifies(*clients_, rsa_key_.get(), "SHA256", chains_[0].leaf.get()))
            return "signature failed: " + ErrorText();
          return "ok";
        },
        options);
    EXPECT_EQ(report, "ok") << "child " << child;
    if (report != "ok") break;  // the next would hang as long
    ++succeeded;
  }
  stop = true;
  worker.join();
  EXPECT_EQ(succeeded, 20);
  EXPECT_EQ(failures.load(), 0);
}

class ProviderCaFilesTest : public ProviderTest {};

TEST_F(ProviderCaFilesTest, AFifoADeviceAndAnOversizedCaFileAreSkippedWithOneLineEach) {
  const std::string thumbprint = InstallClient(KeyKind::k_rsa, "RSA Client");
  const std::filesystem::path fifo = temp_ / "ca.fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::filesystem::path oversized = temp_ / "oversized.pem";
  WriteFile(oversized, std::string());
  std::filesystem::resize_file(oversized, 5 * 1024 * 1024);
  env_override_["X509AUTH_CA_FILES"] =
      fifo.string() + ":/dev/zero:" + oversized.string() + ":" + CasFile().string();
  env_override_["X509AUTH_LOG"] = "error";
  // /dev/zero read to its end would take any amount of memory: 1 GB is
  // all the openssl process gets (AddressSanitizer's runtime alone needs
  // more address space than that).
#ifndef X509AUTH_TEST_ASAN_RUNTIME
  launcher_ = {"prlimit", "--as=1073741824", "--"};
#endif
  const ChildResult listed = Openssl("storeutl", {"-noout", "-text", "x509auth:"});
  EXPECT_FALSE(listed.timed_out);
  EXPECT_EQ(listed.status, 0) << listed.err;
  // The CA file after them is still read: the chain is built.
  EXPECT_NE(listed.out.find("Total found: 1"), std::string::npos) << listed.out << listed.err;
  EXPECT_NE(listed.out.find("Subject: CN=RSA Client"), std::string::npos) << listed.out;
  const std::string expected = "x509auth: ca_files: skipping " + fifo.string() +
                               ": not a regular file\n"
                               "x509auth: ca_files: skipping /dev/zero: not a regular file\n"
                               "x509auth: ca_files: skipping " +
                               oversized.string() + ": larger than 4 MiB (5242880 bytes)\n";
  EXPECT_NE(listed.err.find(expected), std::string::npos) << listed.err;
  // One line each.
  int lines = 0;
  for (std::size_t at = listed.err.find("ca_files"); at != std::string::npos;
       at = listed.err.find("ca_files", at + 1))
    ++lines;
  EXPECT_EQ(lines, 3) << listed.err;
  // And a handshake with the key works as it would without them.
  auto server = StartReversingServer();
  ASSERT_NE(server, nullptr);
  EXPECT_TRUE(LineCameBack(SendLine(thumbprint, {})));
}

class ProviderSetUserIdTest : public ProviderTest {};

TEST_F(ProviderSetUserIdTest, ASetUserIdHostIgnoresTheCallersEnvironment) {
#ifdef X509AUTH_TEST_ASAN_RUNTIME
  GTEST_SKIP() << "a set-user-ID program gets no preloaded sanitizer runtime";
#else
  InstallClient(KeyKind::k_ec, "Dirs Client");
  Chain home_chain = MakeChain(KeyKind::k_rsa, "Home Client");
  const std::filesystem::path home = temp_ / "home";
  WriteFile(home / ".x509-auth" / "certs" / "home.pem", CertToPem(home_chain.leaf.get()));
  WriteFile(home / ".x509-auth" / "keys" / "home.pem.key", KeyToPem(home_chain.leaf_key.get()));
  AddCas(home_chain);
  // The caller's library, which a privileged process must never load.
  const std::filesystem::path module = temp_ / "evil.so";
  std::filesystem::copy_file(MARKER_MODULE_PATH, module);
  const std::filesystem::path marker = temp_ / "module-was-loaded";
  // A root-owned copy of the host, set-user-ID, that nobody can reach.
  const std::filesystem::path host = temp_ / "bin" / "store_host";
  std::filesystem::create_directories(host.parent_path());
  std::filesystem::copy_file(STORE_HOST_PATH, host);
  ASSERT_EQ(chown(host.c_str(), 0, 0), 0);
  ASSERT_EQ(chmod(host.c_str(), 04755), 0);
  ASSERT_EQ(chmod(temp_.path().c_str(), 0755), 0);
  ChildRun run;
  run.env["X509AUTH_MODULE"] = module.string();
  run.env["X509AUTH_TEST_MARKER"] = marker.string();
  run.env["X509AUTH_DIRS"] = base_.string();
  run.env["X509AUTH_CA_FILES"] = CasFile().string();
  run.env["X509AUTH_LOG"] = "info";
  run.env["HOME"] = home.string();
  run.cwd = temp_.path().string();
  run.limit = std::chrono::seconds(40);
  // Started by root (no change of user at exec): the environment counts,
  // and the module and both certificates are seen.
  run.argv = {host.string(), X509AUTH_PROVIDER_DIR};
  const ChildResult as_root = RunChild(run);
  EXPECT_EQ(as_root.status, 0) << as_root.err;
  EXPECT_NE(as_root.out.find("certificates: 2"), std::string::npos) << as_root.out << as_root.err;
  EXPECT_NE(as_root.err.find("x509auth: "), std::string::npos) << as_root.err;
  EXPECT_TRUE(std::filesystem::exists(marker));
  std::filesystem::remove(marker);
  // Started by nobody, it runs as root: none of the caller's settings.
  run.argv = {"setpriv",        "--reuid=65534", "--regid=65534",
              "--clear-groups", host.string(),   X509AUTH_PROVIDER_DIR};
  const ChildResult as_nobody = RunChild(run);
  EXPECT_EQ(as_nobody.status, 0) << as_nobody.err;
  EXPECT_NE(as_nobody.out.find("certificates: 0"), std::string::npos)
      << as_nobody.out << as_nobody.err;
  EXPECT_EQ(as_nobody.err.find("x509auth: "), std::string::npos) << as_nobody.err;
  EXPECT_FALSE(std::filesystem::exists(marker));
#endif
}

}  // namespace
}  // namespace x509auth_test
