// The store loader of "x509auth:" URIs. "x509auth:thumbprint=<40 hex>" gives
// the certificate with that SHA-1 thumbprint and a private-key object for it;
// "x509auth:" alone gives every certificate the library offers.
#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/core_object.h>
#include <openssl/params.h>
#include <openssl/store.h>
#include <strings.h>

#include <cctype>
#include <cstring>
#include <string>

#include "Dispatch.h"
#include "DispatchCast.h"
#include "KeyObject.h"
#include "x509auth/LibraryOwned.h"

namespace x509auth_provider {
namespace {

using x509auth_common::LibraryOwned;
using x509auth_common::Receive;

// Each entry point has OpenSSL's own type for its slot: a wrong signature
// does not build.
OSSL_FUNC_store_open_fn Open;
OSSL_FUNC_store_settable_ctx_params_fn SettableParams;
OSSL_FUNC_store_set_ctx_params_fn SetParams;
OSSL_FUNC_store_load_fn Load;
OSSL_FUNC_store_eof_fn Eof;
OSSL_FUNC_store_close_fn Close;

constexpr const char* k_scheme = "x509auth:";
constexpr const char* k_thumbprint_key = "thumbprint=";

struct Entry {
  std::vector<unsigned char> der;
  std::array<std::uint8_t, X509_AUTH_THUMBPRINT_LENGTH> thumbprint{};
  std::string name;
  bool smart_card = false;
};

struct StoreContext {
  ProviderContext* provider = nullptr;
  bool list_all = true;
  std::array<std::uint8_t, X509_AUTH_THUMBPRINT_LENGTH> thumbprint{};
  std::string thumbprint_hex;
  int expect = 0;  // OSSL_STORE_INFO_* the application wants, 0: anything
  bool listed = false;
  bool done = false;
  std::vector<Entry> entries;
  std::size_t next = 0;      // next entry to hand out
  bool key_pending = false;  // the next entry's certificate was handed out
  std::shared_ptr<PassphraseSource> passphrase;
};

StoreContext* AsContext(void* context) { return static_cast<StoreContext*>(context); }

bool ParseHex(const std::string& text, std::array<std::uint8_t, X509_AUTH_THUMBPRINT_LENGTH>* out) {
  if (text.size() != 2 * out->size()) return false;
  for (std::size_t i = 0; i < out->size(); ++i) {
    const char pair[3] = {text[2 * i], text[2 * i + 1], '\0'};
    if (!std::isxdigit(static_cast<unsigned char>(pair[0])) ||
        !std::isxdigit(static_cast<unsigned char>(pair[1])))
      return false;
    (*out)[i] = static_cast<std::uint8_t>(std::strtoul(pair, nullptr, 16));
  }
  return true;
}

void* Open(void* provctx, const char* uri) {
  ProviderContext* provider = ProviderContext::From(provctx);
  const std::size_t scheme_length = std::strlen(k_scheme);
  if (uri == nullptr || strncasecmp(uri, k_scheme, scheme_length) != 0) return nullptr;
  auto context = std::make_unique<StoreContext>();
  context->provider = provider;
  const std::string rest = uri + scheme_length;
  const std::size_t key_length = std::strlen(k_thumbprint_key);
  if (!rest.empty()) {
    if (strncasecmp(rest.c_str(), k_thumbprint_key, key_length) != 0 ||
        !ParseHex(rest.substr(key_length), &context->thumbprint)) {
      X509AUTH_RAISE(provider, k_reason_bad_uri,
                     "%s: use x509auth:thumbprint=<40 hex digits> or x509auth:", uri);
      return nullptr;
    }
    context->list_all = false;
    context->thumbprint_hex = rest.substr(key_length);
    for (char& c : context->thumbprint_hex)
      c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return context.release();  // OpenSSL owns it until Close
}

const OSSL_PARAM* SettableParams(void*) {
  static const OSSL_PARAM params[] = {OSSL_PARAM_int(OSSL_STORE_PARAM_EXPECT, nullptr),
                                      OSSL_PARAM_END};
  return params;
}

int SetParams(void* opaque, const OSSL_PARAM params[]) {
  StoreContext* context = AsContext(opaque);
  const OSSL_PARAM* p = OSSL_PARAM_locate_const(params, OSSL_STORE_PARAM_EXPECT);
  if (p != nullptr && !OSSL_PARAM_get_int(p, &context->expect)) return 0;
  return 1;
}

// The one certificate a thumbprint URI names, found without listing the
// others (nor loading the PKCS#11 module for a file certificate).
bool FindOne(StoreContext* context) {
  context->listed = true;
  ProviderContext::CallReport report;
  X509_Auth_ResultCode code = X509_Auth_ResultCode_Success;
  // Run as a listing, so that a file left out for its chain is named as
  // the listing names it.
  context->provider->RunListing(&report, [&](std::vector<std::string>& offered_key_paths) {
    LibraryOwned<X509_Auth_Certificate> record;
    code = X509_Auth_FindCertificate(context->thumbprint.data(), Receive(record));
    if (code == X509_Auth_ResultCode_CertificateNotFound) return true;
    if (code != X509_Auth_ResultCode_Success) return false;
    if (record->key_path != nullptr && *record->key_path != '\0')
      offered_key_paths.push_back(record->key_path);
    Entry entry;
    entry.der.assign(record->encoded, record->encoded + record->encoded_length);
    std::memcpy(entry.thumbprint.data(), record->thumbprint, entry.thumbprint.size());
    entry.name = record->name != nullptr ? record->name : "";
    entry.smart_card = record->cert_type == X509_Auth_CertificateType_SmartCard;
    // An added CA certificate has no key: the listing never offers it.
    const bool offered = record->cert_type != X509_Auth_CertificateType_Other;
    if (offered) {
      context->entries.push_back(std::move(entry));
    } else {
      code = X509_Auth_ResultCode_CertificateNotFound;
    }
    return true;
  });
  if (code == X509_Auth_ResultCode_CertificateNotFound) {
    X509AUTH_RAISE(context->provider, k_reason_certificate_not_found, "thumbprint=%s",
                   context->thumbprint_hex.c_str());
    return false;
  }
  if (code != X509_Auth_ResultCode_Success) {
    std::string evidence;
    for (const std::string& line : report.evidence) evidence += " | " + line;
    X509AUTH_RAISE(context->provider, k_reason_listing_failed,
                   "X509_Auth_FindCertificate could not open the store (%d)%s",
                   static_cast<int>(code), evidence.c_str());
    return false;
  }
  return true;
}

// Lists the offered certificates once, keeping copies of the ones wanted.
bool List(StoreContext* context) {
  if (!context->list_all) return FindOne(context);
  context->listed = true;
  ProviderContext::CallReport report;
  const bool listed =
      context->provider->RunListing(&report, [&](std::vector<std::string>& offered_key_paths) {
        uint64_t count = 0;
        LibraryOwned<X509_Auth_Certificate> records;
        if (!X509_Auth_LoadClientCertificates(&count, Receive(records))) return false;
        for (uint64_t i = 0; i < count; ++i) {
          const X509_Auth_Certificate& record = records.get()[i];
          if (record.key_path != nullptr && *record.key_path != '\0')
            offered_key_paths.push_back(record.key_path);
          if (!context->list_all && std::memcmp(record.thumbprint, context->thumbprint.data(),
                                                context->thumbprint.size()) != 0)
            continue;
          Entry entry;
          entry.der.assign(record.encoded, record.encoded + record.encoded_length);
          std::memcpy(entry.thumbprint.data(), record.thumbprint, entry.thumbprint.size());
          entry.name = record.name != nullptr ? record.name : "";
          entry.smart_card = record.cert_type == X509_Auth_CertificateType_SmartCard;
          context->entries.push_back(std::move(entry));
        }
        return true;
      });
  if (!listed) {
    std::string evidence;
    for (const std::string& line : report.evidence) evidence += " | " + line;
    X509AUTH_RAISE(context->provider, k_reason_listing_failed,
                   "X509_Auth_LoadClientCertificates could not open the store%s", evidence.c_str());
    return false;
  }
  if (!context->list_all && context->entries.empty()) {
    X509AUTH_RAISE(context->provider, k_reason_certificate_not_found, "thumbprint=%s",
                   context->thumbprint_hex.c_str());
    return false;
  }
  return true;
}

int GiveCertificate(const Entry& entry, OSSL_CALLBACK* object_cb, void* object_cbarg) {
  int type = OSSL_OBJECT_CERT;
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_int(OSSL_OBJECT_PARAM_TYPE, &type),
      OSSL_PARAM_construct_octet_string(
          OSSL_OBJECT_PARAM_DATA, const_cast<unsigned char*>(entry.der.data()), entry.der.size()),
      OSSL_PARAM_construct_utf8_string(OSSL_OBJECT_PARAM_DESC,
                                       const_cast<char*>(entry.name.c_str()), 0),
      OSSL_PARAM_construct_end()};
  return object_cb(params, object_cbarg);
}

int GiveKey(StoreContext* context, const Entry& entry, OSSL_CALLBACK* object_cb,
            void* object_cbarg) {
  std::shared_ptr<const KeyObject> key = KeyObject::ForCertificate(
      context->provider, entry.der, entry.thumbprint, context->passphrase);
  if (key == nullptr) return 0;
  // The key is opened now, while the application's passphrase callback is
  // at hand: a key file's password is asked for here, and a wrong one (or a
  // missing key) fails the load instead of a later handshake. The answer it
  // gave is kept for the key's later operations; a wrong one is not.
  if (!key->OpenPrivate()) {
    key->ForgetPassphrase();
    return 0;
  }
  // A token key asks for its PIN only when it signs: one signature now
  // logs in, and the login stays.
  if (entry.smart_card) {
    unsigned char probe[32] = {};
    std::vector<unsigned char> signature;
    if (!key->SignHash(X509_Auth_HashType_Sha256, probe, &signature)) {
      key->ForgetPassphrase();
      return 0;
    }
  }
  int type = OSSL_OBJECT_PKEY;
  const char* data_type = key->Algorithm() == X509_Auth_Algorithm_Rsa ? "RSA" : "EC";
  // The key management's load takes its own share of the object through this
  // address while the callback runs.
  const std::shared_ptr<const KeyObject>* reference = &key;
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_int(OSSL_OBJECT_PARAM_TYPE, &type),
      OSSL_PARAM_construct_utf8_string(OSSL_OBJECT_PARAM_DATA_TYPE, const_cast<char*>(data_type),
                                       0),
      OSSL_PARAM_construct_octet_string(OSSL_OBJECT_PARAM_REFERENCE, &reference, sizeof(reference)),
      OSSL_PARAM_construct_end()};
  return object_cb(params, object_cbarg);
}

bool WantKeys(const StoreContext* context) {
  return !context->list_all && (context->expect == 0 || context->expect == OSSL_STORE_INFO_PKEY);
}

int Load(void* opaque, OSSL_CALLBACK* object_cb, void* object_cbarg,
         OSSL_PASSPHRASE_CALLBACK* pw_cb, void* pw_cbarg) {
  StoreContext* context = AsContext(opaque);
  if (context->done) return 0;
  // Finished unless an object is given: a load that fails, or throws (which
  // the entry point's guard turns into a failure), ends the listing.
  context->done = true;
  if (context->passphrase == nullptr)
    context->passphrase = std::make_shared<PassphraseSource>(pw_cb, pw_cbarg);
  if (!context->listed && !List(context)) return 0;
  const bool want_certs = context->expect == 0 || context->expect == OSSL_STORE_INFO_CERT;
  const bool want_keys = WantKeys(context);
  while (context->next < context->entries.size()) {
    const Entry& entry = context->entries[context->next];
    // Each certificate first, then (for a single one) its key.
    if (!context->key_pending) {
      context->key_pending = true;
      if (want_certs) {
        context->done = false;
        return GiveCertificate(entry, object_cb, object_cbarg);
      }
    }
    context->key_pending = false;
    ++context->next;
    if (want_keys) {
      const int given = GiveKey(context, entry, object_cb, object_cbarg);
      context->done = !given;
      return given;
    }
  }
  return 0;
}

int Eof(void* opaque) {
  const StoreContext* context = AsContext(opaque);
  if (context->done) return 1;
  if (!context->listed) return 0;
  const std::size_t left = context->entries.size() - context->next;
  // A last certificate already handed out, whose key is not wanted.
  return left == 0 || (left == 1 && context->key_pending && !WantKeys(context));
}

int Close(void* opaque) {
  std::unique_ptr<StoreContext> context(AsContext(opaque));
  // The callback lives in the application's store context, which goes now.
  if (context->passphrase != nullptr) context->passphrase->Invalidate();
  return 1;
}

}  // namespace

const OSSL_DISPATCH k_store_functions[] = {
    {OSSL_FUNC_STORE_OPEN, DispatchCast<Open>()},
    {OSSL_FUNC_STORE_SETTABLE_CTX_PARAMS, DispatchCast<SettableParams>()},
    {OSSL_FUNC_STORE_SET_CTX_PARAMS, DispatchCast<SetParams>()},
    {OSSL_FUNC_STORE_LOAD, DispatchCast<Load>()},
    {OSSL_FUNC_STORE_EOF, DispatchCast<Eof>()},
    {OSSL_FUNC_STORE_CLOSE, DispatchCast<Close>()},
    {0, nullptr}};

}  // namespace x509auth_provider
