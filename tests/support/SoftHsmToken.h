#pragma once
// A throwaway SoftHSM2 token store for one test, reached by the library the
// way a host reaches a smart card: through "./opensc-pkcs11.so" in the
// working directory.
//
// Construction makes a temporary directory holding softhsm2.conf (file object
// store, its own token directory), points SOFTHSM2_CONF at it, creates a
// working directory below it with "opensc-pkcs11.so" linked to the SoftHSM2
// module, and chdir()s into it. Destruction restores the previous working
// directory and SOFTHSM2_CONF and removes everything. The working directory,
// the environment and the library's PKCS#11 context are process-wide, so use
// one SoftHsmToken per test process (CTest runs each test case in its own
// process) and drop every Libp11Context reference before it goes away: the
// module reads SOFTHSM2_CONF only when it is loaded.
//
// Typical use, an RSA and an EC certificate with their keys on one token:
//   SoftHsmToken hsm;
//   hsm.InitToken("Card A");                      // PIN "1234", SO PIN "5678"
//   hsm.ImportCertAndKey("Card A", rsa_cert.get(), rsa_key.get(), "01", "rsa");
//   hsm.ImportCertAndKey("Card A", ec_cert.get(), ec_key.get(), "02", "ec");
//   auto context = Libp11Context::GetInstance();   // loads the module now
// SoftHSM2 always offers one more, uninitialised token after the initialised
// ones; every test on this store meets it. libp11 0.4.12 hangs on any call
// that opens a session there, so never hand that slot to libp11 unguarded.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ScopedTestEnvironment.h"

// Skips the current test, with the reason, on a machine without SoftHSM2's
// module and tools: put first in a token test's body or its fixture's SetUp.
#define X509AUTH_SKIP_WITHOUT_SOFTHSM2()                                    \
  do {                                                                      \
    if (const auto reason = ::x509auth_test::SoftHsmToken::MissingReason()) \
      GTEST_SKIP() << *reason;                                              \
  } while (false)

namespace x509auth_test {

class SoftHsmToken {
 public:
  static constexpr const char* k_default_pin = "1234";
  static constexpr const char* k_default_so_pin = "5678";

  struct Options {
    // Working directory, relative to the temporary directory; entered on
    // construction.
    std::string working_directory = "work";
    // Directory, relative to the temporary directory, that receives the
    // "opensc-pkcs11.so" link; none when empty.
    std::string module_link_directory = "work";
    // What the link points to: SoftHSM2's module unless a test wants another
    // file there.
    std::filesystem::path module_link_target = SOFTHSM2_MODULE_PATH;
    // SoftHSM2's "slots.mechanisms" line: which mechanisms its tokens
    // offer. A leading "-" makes the whole list the ones left out:
    // "-CKM_RSA_PKCS_PSS,CKM_RSA_X_509" offers neither of the two.
    std::string mechanisms = "ALL";
  };

  SoftHsmToken();
  explicit SoftHsmToken(const Options& options);
  ~SoftHsmToken();
  SoftHsmToken(const SoftHsmToken&) = delete;
  SoftHsmToken& operator=(const SoftHsmToken&) = delete;

  // Initialises the first free token with this label and PINs. SoftHSM2
  // orders its slots by token identity, not by initialisation: find a
  // token's slot by its label.
  void InitToken(const std::string& label, const std::string& pin = k_default_pin,
                 const std::string& so_pin = k_default_so_pin);
  // Writes a certificate object with the hex |id| and |object_label| to the
  // token labelled |token_label|, logging in with |pin|.
  void ImportCert(const std::string& token_label, X509* cert, const std::string& id,
                  const std::string& object_label, const std::string& pin = k_default_pin);
  // Writes a private-key object (RSA or EC) the same way. With
  // |always_authenticate| every use of the key needs the PIN again, which
  // libp11 asks for through the UI method of its context.
  void ImportKey(const std::string& token_label, EVP_PKEY* key, const std::string& id,
                 const std::string& object_label, const std::string& pin = k_default_pin,
                 bool always_authenticate = false);
  // Both of the above under one id and label, as a card holds them.
  void ImportCertAndKey(const std::string& token_label, X509* cert, EVP_PKEY* key,
                        const std::string& id, const std::string& object_label,
                        const std::string& pin = k_default_pin);
  // Deletes the token's files, as pulling the card out would take it away
  // from a module that has already listed it.
  void DeleteToken(const std::string& token_label);

  const std::filesystem::path& Root() const { return root_; }
  const std::filesystem::path& WorkingDirectory() const { return working_directory_; }
  const std::filesystem::path& TokenDirectory() const { return token_directory_; }
  // SoftHSM2's module as found when the project was configured.
  static std::filesystem::path ModulePath();
  // Why the token tests cannot run here (no SoftHSM2 module, softhsm2-util
  // or pkcs11-tool), or nothing when they can.
  static std::optional<std::string> MissingReason();

  // Runs a program with these arguments and fails the current test when it
  // does not exit with 0. Its output goes to |log_file| under the root.
  void Run(const std::vector<std::string>& arguments);

 private:
  std::filesystem::path root_;
  std::filesystem::path working_directory_;
  std::filesystem::path token_directory_;
  // The working directory and SOFTHSM2_CONF, put back before root_ goes.
  std::unique_ptr<ScopedTestEnvironment> environment_;
  int file_counter_ = 0;
};

}  // namespace x509auth_test
