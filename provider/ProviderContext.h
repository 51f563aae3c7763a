#pragma once
// One provider context: what OpenSSL gets back from the provider's init
// function. It holds the context's settings (from openssl.cnf or the
// environment), where it does public-key work and hashing (Crypto), a share of the process's
// library session, and the core's error functions.
#include <openssl/core.h>
#include <openssl/core_dispatch.h>
#include <openssl/err.h>
#include <openssl/provider.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ProviderPtr.h"
#include "SharedLibrarySession.h"
#include "x509auth/LeftOutCertificates.h"

namespace x509auth_provider {

// Reasons of the errors the provider raises; their texts are in
// ProviderContext.cpp.
enum Reason {
  k_reason_bad_uri = 1,
  k_reason_certificate_not_found,
  k_reason_listing_failed,
  k_reason_signing_failed,
  k_reason_decryption_failed,
  k_reason_unsupported_digest,
  k_reason_unsupported_padding,
  k_reason_no_private_key,
  k_reason_passphrase_unavailable,
  k_reason_buffer_too_small,
  k_reason_unsupported_key,
  k_reason_bad_argument,
  k_reason_setup_failed,
  k_reason_unexpected,
};

// Raises an error of |provider| (a ProviderContext*) that points at the
// place that failed, not at the raising helper.
#define X509AUTH_RAISE(provider, reason, ...) \
  (provider)->RaiseAt(OPENSSL_FILE, OPENSSL_LINE, OPENSSL_FUNC, (reason), __VA_ARGS__)

class ProviderContext {
 public:
  // Listed among the live contexts until destroyed (see RaiseUnexpected).
  ProviderContext(const OSSL_CORE_HANDLE* handle, const OSSL_DISPATCH* in);
  ~ProviderContext();
  ProviderContext(const ProviderContext&) = delete;
  ProviderContext& operator=(const ProviderContext&) = delete;

  // Reads the settings; false after raising an error.
  bool Start();

  static ProviderContext* From(void* provctx) { return static_cast<ProviderContext*>(provctx); }

  // Where public-key work and hashing are done, never coming back into this
  // provider: the application's library context, asking for any
  // implementation but this provider's, where it has RSA and EC key
  // management of another provider (its default or FIPS provider);
  // otherwise a library context of the provider's own with OpenSSL's
  // default implementations. Decided at the first call, then fixed.
  struct CryptoContext {
    OSSL_LIB_CTX* libctx = nullptr;
    const char* properties = nullptr;  // the property query for every fetch
  };
  CryptoContext Crypto() const;
  const ProviderSettings& Settings() const { return settings_; }

  // The digest |name| from Crypto(). The SHA-1 and SHA-2 digests, by their
  // usual names, are fetched on first use and kept: a fetch costs more than
  // a third of a P-256 signature, and libssl asks for one at every
  // signature. Others, and any with |properties| (which then replace
  // Crypto()'s), are fetched each time. Null when there is none.
  EvpMdPtr Digest(const char* name, const char* properties = nullptr) const;

  // What one call into the library left for the caller's error report.
  struct CallReport {
    bool prompt_refused = false;        // a secret was asked for, none given
    std::vector<std::string> evidence;  // the library's lines explaining it
  };

  // Runs |call| inside the library session (see SharedLibrarySession::Run), with
  // |source| answering prompts; fills |*report| when it is given.
  template <typename Call>
  auto Run(const PassphraseSource* source, CallReport* report, Call&& call) {
    const Request request{&settings_, source};
    auto result = Session().Run(request, std::forward<Call>(call));
    if (report != nullptr) {
      report->prompt_refused = request.prompt_refused;
      report->evidence = std::move(request.evidence);
    }
    return result;
  }

  // Runs |list| (which lists through the library) inside the library
  // session, following its lines; then, at log level error or below, names
  // each certificate file the listing left out because its chain cannot be
  // built, once while it stays left out. |list| returns whether the listing
  // succeeded and appends the key paths of the file certificates offered.
  template <typename List>
  bool RunListing(CallReport* report, List&& list) {
    std::vector<std::string> offered_key_paths;
    return Run(nullptr, report, [&] {
      bool listed = false;
      {
        const x509auth_common::LeftOutCertificates::Watch watch(left_out_);
        listed = list(offered_key_paths);
      }
      if (listed) ReportLeftOut(offered_key_paths);
      return listed;
    });
  }

  // Raises an OpenSSL error of this provider with a printf-style detail,
  // recorded at the caller's file, line and function: use X509AUTH_RAISE.
  void RaiseAt(const char* file, int line, const char* function, int reason, const char* format,
               ...) const __attribute__((format(printf, 6, 7)));

 private:
  std::string Parameter(const char* name, const char* environment) const;
  // Settles the PKCS#11 module setting; false after raising an error.
  bool ChooseModule();
  // Whether the application's library context can do this provider's
  // public-key work without it.
  bool ApplicationCanDoPublicKeyWork() const;
  SharedLibrarySession& Session();
  void AddCertificateAuthorities(SharedLibrarySession& session) const;
  void ReportLeftOut(const std::vector<std::string>& offered_key_paths);

  const OSSL_CORE_HANDLE* handle_;
  OSSL_FUNC_core_get_params_fn* get_params_ = nullptr;
  OSSL_FUNC_core_new_error_fn* new_error_ = nullptr;
  OSSL_FUNC_core_set_error_debug_fn* set_error_debug_ = nullptr;
  OSSL_FUNC_core_vset_error_fn* vset_error_ = nullptr;
  OSSL_FUNC_core_get_libctx_fn* get_libctx_ = nullptr;
  ProviderSettings settings_;
  OSSL_LIB_CTX* application_ = nullptr;  // the application's, not owned
  LibCtxPtr own_;                        // made at start, started on first use
  enum class CryptoChoice { k_undecided, k_application, k_own };
  mutable std::atomic<CryptoChoice> crypto_choice_{CryptoChoice::k_undecided};
  std::vector<std::string> ca_files_;
  mutable std::mutex digests_lock_;
  mutable std::vector<std::pair<std::string, EvpMdPtr>> digests_;
  std::shared_ptr<SharedLibrarySession> session_;  // joined on first use
  // Used only inside the library session, under its lock.
  x509auth_common::LeftOutCertificates left_out_;

  // The contexts not yet torn down, newest first, under
  // ProcessLocks::Contexts: an exception caught in an entry point is raised
  // through one of them. A list without storage of its own, so that a
  // teardown after the static objects are gone (OPENSSL_cleanup) still works.
  static ProviderContext* newest_;
  ProviderContext* older_ = nullptr;
  ProviderContext* newer_ = nullptr;
  friend void RaiseUnexpected(std::string_view entry, const char* what) noexcept;
};

// The provider's init function, shared by the module's OSSL_provider_init and
// by hosts that build the provider in (OSSL_PROVIDER_add_builtin).
extern "C" int X509AuthProviderInit(const OSSL_CORE_HANDLE* handle, const OSSL_DISPATCH* in,
                                    const OSSL_DISPATCH** out, void** provctx);

}  // namespace x509auth_provider
