#include "ProviderContext.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/pem.h>
#include <openssl/provider.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <sstream>

#include "Dispatch.h"
#include "DispatchCast.h"
#include "ErrorQueueGuard.h"
#include "ProcessLocks.h"
#include "x509_auth.h"
#include "x509auth/LogLevel.h"
#include "x509auth/RegularFile.h"

namespace x509auth_provider {
namespace {

// Each entry point has OpenSSL's own type for its slot: a wrong signature
// does not build.
OSSL_FUNC_provider_teardown_fn Teardown;
OSSL_FUNC_provider_gettable_params_fn GettableParams;
OSSL_FUNC_provider_get_params_fn GetParams;
OSSL_FUNC_provider_query_operation_fn QueryOperation;
OSSL_FUNC_provider_get_reason_strings_fn GetReasonStrings;

constexpr const char* k_properties = "provider=x509auth";
// Any implementation but this provider's, whatever name it was loaded by:
// the property above is the provider's own definition.
constexpr const char* k_other_providers = "provider!=x509auth";
constexpr const char* k_default_home_dir = ".x509-auth";
constexpr const char* k_default_pkcs11_module = X509AUTH_DEFAULT_PKCS11_MODULE;
constexpr const char* k_rsa_names = "RSA:rsaEncryption:1.2.840.113549.1.1.1";
constexpr const char* k_ec_names = "EC:id-ecPublicKey:1.2.840.10045.2.1";

const OSSL_ALGORITHM k_keymgmt[] = {
    {k_rsa_names, k_properties, k_rsa_keymgmt_functions, "RSA key of an x509auth certificate"},
    {k_ec_names, k_properties, k_ec_keymgmt_functions, "EC key of an x509auth certificate"},
    {nullptr, nullptr, nullptr, nullptr}};
const OSSL_ALGORITHM k_signature[] = {
    {k_rsa_names, k_properties, k_rsa_signature_functions,
     "RSA PKCS#1 v1.5 and PSS through x509auth"},
    {"ECDSA", k_properties, k_ecdsa_signature_functions, "ECDSA through x509auth"},
    {nullptr, nullptr, nullptr, nullptr}};
const OSSL_ALGORITHM k_asym_cipher[] = {
    {k_rsa_names, k_properties, k_rsa_asym_cipher_functions, "RSA decryption through x509auth"},
    {nullptr, nullptr, nullptr, nullptr}};
const OSSL_ALGORITHM k_store[] = {
    {"x509auth", k_properties, k_store_functions, "x509auth: certificates and their keys"},
    {nullptr, nullptr, nullptr, nullptr}};

const OSSL_ITEM k_reason_strings[] = {
    {k_reason_bad_uri, const_cast<char*>("unrecognised x509auth URI")},
    {k_reason_certificate_not_found,
     const_cast<char*>("no offered certificate has this thumbprint")},
    {k_reason_listing_failed, const_cast<char*>("the certificates could not be listed")},
    {k_reason_signing_failed, const_cast<char*>("signing through x509auth failed")},
    {k_reason_decryption_failed, const_cast<char*>("decryption through x509auth failed")},
    {k_reason_unsupported_digest,
     const_cast<char*>("unsupported digest (x509auth signs SHA-1, SHA-256, SHA-384 and SHA-512)")},
    {k_reason_unsupported_padding,
     const_cast<char*>("unsupported padding (x509auth signs RSA with PKCS#1 v1.5 or PSS)")},
    {k_reason_no_private_key, const_cast<char*>("the key has no private half")},
    {k_reason_passphrase_unavailable,
     const_cast<char*>("a PIN or password was needed but the application gave none")},
    {k_reason_buffer_too_small, const_cast<char*>("output buffer too small")},
    {k_reason_unsupported_key, const_cast<char*>("the certificate's key is neither RSA nor EC")},
    {k_reason_bad_argument, const_cast<char*>("invalid argument")},
    {k_reason_setup_failed, const_cast<char*>("the x509auth provider could not start")},
    {k_reason_unexpected, const_cast<char*>("the x509auth provider failed unexpectedly")},
    {0, nullptr}};

std::vector<std::string> SplitColons(const std::string& text) {
  std::vector<std::string> parts;
  std::stringstream stream(text);
  std::string part;
  while (std::getline(stream, part, ':'))
    if (!part.empty()) parts.push_back(part);
  return parts;
}

// Provider-level functions; OpenSSL's C signatures.
void Teardown(void* provctx) {
  std::unique_ptr<ProviderContext> owned(ProviderContext::From(provctx));
}

const OSSL_PARAM* GettableParams(void*) {
  static const OSSL_PARAM params[] = {OSSL_PARAM_utf8_ptr(OSSL_PROV_PARAM_NAME, nullptr, 0),
                                      OSSL_PARAM_utf8_ptr(OSSL_PROV_PARAM_VERSION, nullptr, 0),
                                      OSSL_PARAM_utf8_ptr(OSSL_PROV_PARAM_BUILDINFO, nullptr, 0),
                                      OSSL_PARAM_int(OSSL_PROV_PARAM_STATUS, nullptr),
                                      OSSL_PARAM_END};
  return params;
}

int GetParams(void*, OSSL_PARAM params[]) {
  OSSL_PARAM* p = OSSL_PARAM_locate(params, OSSL_PROV_PARAM_NAME);
  if (p != nullptr && !OSSL_PARAM_set_utf8_ptr(p, "x509auth: certificates and keys of libx509auth"))
    return 0;
  p = OSSL_PARAM_locate(params, OSSL_PROV_PARAM_VERSION);
  if (p != nullptr && !OSSL_PARAM_set_utf8_ptr(p, "3.0.0")) return 0;
  p = OSSL_PARAM_locate(params, OSSL_PROV_PARAM_BUILDINFO);
  if (p != nullptr && !OSSL_PARAM_set_utf8_ptr(p, "libx509auth API 3")) return 0;
  p = OSSL_PARAM_locate(params, OSSL_PROV_PARAM_STATUS);
  if (p != nullptr && !OSSL_PARAM_set_int(p, 1)) return 0;
  return 1;
}

const OSSL_ALGORITHM* QueryOperation(void*, int operation_id, int* no_cache) {
  *no_cache = 0;
  switch (operation_id) {
    case OSSL_OP_KEYMGMT: return k_keymgmt;
    case OSSL_OP_SIGNATURE: return k_signature;
    case OSSL_OP_ASYM_CIPHER: return k_asym_cipher;
    case OSSL_OP_STORE: return k_store;
    default: return nullptr;
  }
}

const OSSL_ITEM* GetReasonStrings(void*) { return k_reason_strings; }

// The wrapped function's name in a compiler's description of Guarded<F>::Call,
// where F comes last: "[with ... = x509auth_provider::{anonymous}::Load]".
std::string_view WrappedName(std::string_view entry) {
  entry = entry.substr(0, entry.rfind(']'));
  const std::size_t value = entry.rfind(" = ");
  if (value == std::string_view::npos) return entry;
  entry.remove_prefix(value + 3);
  const std::size_t scope = entry.rfind("::");
  if (scope != std::string_view::npos) entry.remove_prefix(scope + 2);
  return entry;
}

const OSSL_DISPATCH k_provider_functions[] = {
    {OSSL_FUNC_PROVIDER_TEARDOWN, DispatchCast<Teardown>()},
    {OSSL_FUNC_PROVIDER_GETTABLE_PARAMS, DispatchCast<GettableParams>()},
    {OSSL_FUNC_PROVIDER_GET_PARAMS, DispatchCast<GetParams>()},
    {OSSL_FUNC_PROVIDER_QUERY_OPERATION, DispatchCast<QueryOperation>()},
    {OSSL_FUNC_PROVIDER_GET_REASON_STRINGS, DispatchCast<GetReasonStrings>()},
    {0, nullptr}};

}  // namespace

ProviderContext* ProviderContext::newest_ = nullptr;

ProviderContext::ProviderContext(const OSSL_CORE_HANDLE* handle, const OSSL_DISPATCH* in)
    : handle_(handle) {
  {
    const std::lock_guard<ProcessLocks::Mutex> lock(ProcessLocks::Contexts());
    older_ = newest_;
    if (older_ != nullptr) older_->newer_ = this;
    newest_ = this;
  }
  for (; in != nullptr && in->function_id != 0; ++in) {
    switch (in->function_id) {
      case OSSL_FUNC_CORE_GET_PARAMS: get_params_ = OSSL_FUNC_core_get_params(in); break;
      case OSSL_FUNC_CORE_NEW_ERROR: new_error_ = OSSL_FUNC_core_new_error(in); break;
      case OSSL_FUNC_CORE_SET_ERROR_DEBUG:
        set_error_debug_ = OSSL_FUNC_core_set_error_debug(in);
        break;
      case OSSL_FUNC_CORE_VSET_ERROR: vset_error_ = OSSL_FUNC_core_vset_error(in); break;
      case OSSL_FUNC_CORE_GET_LIBCTX: get_libctx_ = OSSL_FUNC_core_get_libctx(in); break;
      default: break;
    }
  }
}

ProviderContext::~ProviderContext() {
  {
    const std::lock_guard<ProcessLocks::Mutex> lock(ProcessLocks::Contexts());
    if (older_ != nullptr) older_->newer_ = newer_;
    if (newer_ != nullptr) newer_->older_ = older_;
    if (newest_ == this) newest_ = older_;
  }
  session_.reset();
}

bool ProviderContext::ChooseModule() {
  // "module" is OpenSSL's own key in a provider section (the provider's
  // path), so the PKCS#11 module has a name of its own.
  const std::string module = Parameter("pkcs11_module", "X509AUTH_MODULE");
  if (module.empty()) {
    // Debian's OpenSC module where it is installed, else no smart cards;
    // never a file from the working directory.
    settings_.module = access(k_default_pkcs11_module, R_OK) == 0 ? k_default_pkcs11_module : "";
    return true;
  }
  if (module == "none") {
    settings_.module.clear();
    return true;
  }
  struct stat status {};
  if (module[0] != '/' || stat(module.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
      access(module.c_str(), R_OK) != 0) {
    X509AUTH_RAISE(this, k_reason_setup_failed,
                   "pkcs11_module %s: give the absolute path of a readable PKCS#11 module, or none",
                   module.c_str());
    return false;
  }
  settings_.module = module;
  return true;
}

std::string ProviderContext::Parameter(const char* name, const char* environment) const {
  // openssl.cnf's provider section first, then the environment.
  char* value = nullptr;
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_ptr(name, &value, 0),
                         OSSL_PARAM_construct_end()};
  if (get_params_ != nullptr && get_params_(handle_, params) && value != nullptr) return value;
  // Not in a set-user-ID or set-group-ID program: there the environment is
  // the caller's, who would name the module the privileged process loads.
  const char* from_environment = secure_getenv(environment);
  return from_environment != nullptr ? from_environment : "";
}

bool ProviderContext::Start() {
  std::error_code error;
  // The session enters the module's directory around each call, so relative
  // directories are fixed now, against the application's working directory
  // when it loaded the provider: a later chdir of the application changes
  // nothing.
  for (const std::string& dir : SplitColons(Parameter("dirs", "X509AUTH_DIRS")))
    settings_.dirs.push_back(std::filesystem::absolute(dir, error).lexically_normal().string());
  settings_.home_dirs = SplitColons(Parameter("home_dirs", "X509AUTH_HOME_DIRS"));
  // The same default as the x509-auth tool's, so both see one set of files.
  if (settings_.home_dirs.empty()) settings_.home_dirs.push_back(k_default_home_dir);
  // They lie below $HOME, which a set-user-ID program's caller chooses.
  if (getauxval(AT_SECURE) != 0) settings_.home_dirs.clear();
  left_out_.SetCertificateDirs(x509auth_common::LeftOutCertificates::CertificateDirs(
      settings_.dirs, settings_.home_dirs, secure_getenv("HOME")));
  const std::string level = Parameter("log_level", "X509AUTH_LOG");
  settings_.log_threshold = level.empty() ? 4 : x509auth_common::ParseLogLevel(level);
  if (settings_.log_threshold < 0) {
    X509AUTH_RAISE(this, k_reason_setup_failed,
                   "log_level '%s': use debug, info, warning, error or none", level.c_str());
    return false;
  }
  if (!ChooseModule()) return false;
  // OpenSSL 3.0 gives an unqualified fetch the implementation of the provider
  // that came first. Were that this one's EC key management, libssl would
  // find no provider offering the EC groups with their own key management
  // and leave P-256 and the other curves out of every handshake. Loading the
  // default provider now, before this one is added to the list, puts it
  // first. The hold is dropped at once: it stays listed, and active as long
  // as the application loads it too; teardown may come after the
  // application's library context is gone, so it must not touch it.
  if (get_libctx_ != nullptr) {
    // Without it (a FIPS-only application) nothing changes, and the failure
    // to load it is not the application's error.
    const ErrorQueueGuard errors;
    application_ = reinterpret_cast<OSSL_LIB_CTX*>(get_libctx_(handle_));
    const OsslProviderPtr fallback(OSSL_PROVIDER_load(application_, "default"));
  }
  // Made now so that a failure shows at start; it costs little until its
  // default provider starts, at its first fetch.
  own_.reset(OSSL_LIB_CTX_new());
  if (own_ == nullptr) {
    X509AUTH_RAISE(this, k_reason_setup_failed, "cannot make a library context");
    return false;
  }
  ca_files_ = SplitColons(Parameter("ca_files", "X509AUTH_CA_FILES"));
  return true;
}

SharedLibrarySession& ProviderContext::Session() {
  // Joined on first use, not in the init function: the library parses
  // certificates, and OpenSSL cannot decode their keys while a provider of
  // the same library context is still being activated.
  const std::lock_guard<ProcessLocks::Mutex> lock(ProcessLocks::Joining());
  if (session_ == nullptr) {
    // Joined only once the CAs are in: a call that failed half way (out of
    // memory) leaves the next one to try again.
    std::shared_ptr<SharedLibrarySession> session = SharedLibrarySession::Acquire(settings_);
    AddCertificateAuthorities(*session);
    session_ = std::move(session);
  }
  return *session_;
}

namespace {

// The DER encodings of the certificates in |content|: every certificate of a
// PEM file, or the file itself when it is not PEM. Only the PEM armour is
// taken off: the library parses and checks each one when it is added, and a
// parse here too would cost as much as the rest of the start.
std::vector<std::vector<unsigned char>> CertificatesIn(std::vector<unsigned char> content) {
  std::vector<std::vector<unsigned char>> found;
  static const std::string k_pem_marker = "-----BEGIN";
  if (std::search(content.begin(), content.end(), k_pem_marker.begin(), k_pem_marker.end()) ==
      content.end()) {
    if (!content.empty()) found.push_back(std::move(content));
    return found;
  }
  BioPtr pem(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  while (pem != nullptr) {
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    if (PEM_read_bio(pem.get(), &name, &header, &data, &length) != 1) break;
    const OpenSslBytesPtr owned_name(reinterpret_cast<unsigned char*>(name));
    const OpenSslBytesPtr owned_header(reinterpret_cast<unsigned char*>(header));
    const OpenSslBytesPtr owned_data(data);
    // The names a certificate reader accepts; other blocks (a key kept in
    // the same file) are passed over.
    if (std::strcmp(name, PEM_STRING_X509) != 0 && std::strcmp(name, PEM_STRING_X509_OLD) != 0)
      continue;
    if (length > 0) found.emplace_back(data, data + length);
  }
  return found;
}

}  // namespace

void ProviderContext::AddCertificateAuthorities(SharedLibrarySession& session) const {
  // The library offers a certificate only when it can build its chain from
  // the CAs a host added (or the system's); these files are such CAs.
  for (const std::string& file : ca_files_) {
    // A FIFO would block the host for ever and /dev/zero would never end:
    // regular files of sensible size only, each refusal told once.
    std::vector<unsigned char> content;
    std::string reason;
    if (!x509auth_common::RegularFile::ReadFile(file, content, reason)) {
      if (settings_.log_threshold <= 3)
        std::fprintf(stderr, "x509auth: ca_files: skipping %s: %s\n", file.c_str(), reason.c_str());
      continue;
    }
    std::vector<std::vector<unsigned char>> certificates;
    {
      // Reading to the end of a PEM file queues an error.
      const ErrorQueueGuard errors;
      certificates = CertificatesIn(std::move(content));
    }
    int added = 0;
    for (const std::vector<unsigned char>& der : certificates) {
      const Request request{&settings_, nullptr};
      added += session.Run(request, [&] {
        return X509_Auth_AddAdditionalCertificateAuthorityToStore(der.data(), der.size());
      });
    }
    // Reported where the library's own lines go, when asked for: this runs
    // inside the first request, which should not fail for it.
    if (added == 0 && settings_.log_threshold <= 3)
      std::fprintf(stderr, "x509auth: ca_files: no CA certificate could be added from %s\n",
                   file.c_str());
  }
}

void ProviderContext::ReportLeftOut(const std::vector<std::string>& offered_key_paths) {
  const std::vector<std::string> lines = left_out_.Report(offered_key_paths);
  if (settings_.log_threshold > 3) return;
  for (const std::string& line : lines) std::fprintf(stderr, "x509auth: %s\n", line.c_str());
}

bool ProviderContext::ApplicationCanDoPublicKeyWork() const {
  if (application_ == nullptr) return false;
  // An application that loaded this provider alone has nothing else; the
  // failed fetch is not its error.
  const ErrorQueueGuard errors;
  for (const char* type : {"RSA", "EC"}) {
    const EvpKeymgmtPtr keymgmt(EVP_KEYMGMT_fetch(application_, type, k_other_providers));
    if (keymgmt == nullptr) return false;
  }
  return true;
}

ProviderContext::CryptoContext ProviderContext::Crypto() const {
  // The application's context, when it can: its choices (a FIPS provider,
  // default properties) apply there, and no second default provider is
  // started and kept for the provider's life. Two threads deciding at once
  // decide alike; no lock, so none to inherit in a forked child.
  CryptoChoice choice = crypto_choice_.load(std::memory_order_acquire);
  if (choice == CryptoChoice::k_undecided) {
    choice = ApplicationCanDoPublicKeyWork() ? CryptoChoice::k_application : CryptoChoice::k_own;
    crypto_choice_.store(choice, std::memory_order_release);
  }
  if (choice == CryptoChoice::k_application) return {application_, k_other_providers};
  return {own_.get(), nullptr};
}

EvpMdPtr ProviderContext::Digest(const char* name, const char* properties) const {
  const CryptoContext crypto = Crypto();
  // The digests kept are fetched with Crypto()'s query: a caller that names
  // properties gets what they select (this provider offers no digest, so
  // they cannot select it).
  if (properties != nullptr) return EvpMdPtr(EVP_MD_fetch(crypto.libctx, name, properties));
  static constexpr const char* k_kept_names[] = {
      "SHA1",    "SHA-1",  "SHA224",   "SHA2-224", "SHA-224", "SHA256",   "SHA2-256",
      "SHA-256", "SHA384", "SHA2-384", "SHA-384",  "SHA512",  "SHA2-512", "SHA-512"};
  const bool kept = std::any_of(std::begin(k_kept_names), std::end(k_kept_names),
                                [name](const char* known) { return strcasecmp(known, name) == 0; });
  if (!kept) return EvpMdPtr(EVP_MD_fetch(crypto.libctx, name, crypto.properties));
  const std::lock_guard<std::mutex> lock(digests_lock_);
  for (const auto& [known, md] : digests_) {
    if (strcasecmp(known.c_str(), name) == 0) {
      EVP_MD_up_ref(md.get());
      return EvpMdPtr(md.get());
    }
  }
  // A failed fetch (a restricted default provider) is not kept: it is
  // tried, and fails, each time it is asked for.
  EvpMdPtr md(EVP_MD_fetch(crypto.libctx, name, crypto.properties));
  if (md == nullptr) return md;
  EVP_MD_up_ref(md.get());
  digests_.emplace_back(name, EvpMdPtr(md.get()));
  return md;
}

void ProviderContext::RaiseAt(const char* file, int line, const char* function, int reason,
                              const char* format, ...) const {
  if (new_error_ == nullptr || vset_error_ == nullptr) return;
  new_error_(handle_);
  if (set_error_debug_ != nullptr) set_error_debug_(handle_, file, line, function);
  va_list arguments;
  va_start(arguments, format);
  vset_error_(handle_, static_cast<uint32_t>(reason), format, arguments);
  va_end(arguments);
}

void RaiseUnexpected(std::string_view entry, const char* what) noexcept {
  try {
    const std::string_view name = WrappedName(entry);
    const std::lock_guard<ProcessLocks::Mutex> lock(ProcessLocks::Contexts());
    if (ProviderContext::newest_ != nullptr) {
      // Any live context raises the provider's error; the newest is as
      // good as the one the call came through.
      ProviderContext::newest_->RaiseAt(OPENSSL_FILE, OPENSSL_LINE, OPENSSL_FUNC,
                                        k_reason_unexpected, "%.*s: %s",
                                        static_cast<int>(name.size()), name.data(), what);
      return;
    }
    // Only the init function runs without one (its context is gone).
    ERR_raise_data(ERR_LIB_PROV, ERR_R_INTERNAL_ERROR, "x509auth provider: %.*s: %s",
                   static_cast<int>(name.size()), name.data(), what);
  } catch (...) {
    // Nothing more can be told.
  }
}

namespace {

int StartProvider(const OSSL_CORE_HANDLE* handle, const OSSL_DISPATCH* in,
                  const OSSL_DISPATCH** out, void** provctx) {
  auto context = std::make_unique<ProviderContext>(handle, in);
  if (!context->Start()) return 0;
  *out = k_provider_functions;
  // OpenSSL owns it from here and hands it back to Teardown.
  *provctx = context.release();
  return 1;
}

}  // namespace

extern "C" int X509AuthProviderInit(const OSSL_CORE_HANDLE* handle, const OSSL_DISPATCH* in,
                                    const OSSL_DISPATCH** out, void** provctx) {
  return Guarded<StartProvider>::Call(handle, in, out, provctx);
}

}  // namespace x509auth_provider
