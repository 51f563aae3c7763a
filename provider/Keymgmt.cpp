// Key management for the RSA and EC keys of x509auth certificates. The public
// half answers every question (parameters, comparisons, export); the private
// half never leaves the library, so an export that asks for it is refused,
// which is what makes OpenSSL run the key's operations in this provider.
#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <cstring>

#include "Dispatch.h"
#include "DispatchCast.h"
#include "ErrorMark.h"
#include "KeyObject.h"

namespace x509auth_provider {
namespace {

// Each entry point has OpenSSL's own type for its slot: a wrong signature
// does not build.
OSSL_FUNC_keymgmt_new_fn NewKey;
OSSL_FUNC_keymgmt_free_fn FreeKey;
OSSL_FUNC_keymgmt_load_fn LoadRsa;
OSSL_FUNC_keymgmt_has_fn HasKey;
OSSL_FUNC_keymgmt_match_fn MatchKeys;
OSSL_FUNC_keymgmt_import_fn ImportRsa;
OSSL_FUNC_keymgmt_import_types_fn RsaTypes;
OSSL_FUNC_keymgmt_export_fn ExportKey;
OSSL_FUNC_keymgmt_get_params_fn GetParams;
OSSL_FUNC_keymgmt_gettable_params_fn RsaGettable;
OSSL_FUNC_keymgmt_query_operation_name_fn RsaOperationName;
OSSL_FUNC_keymgmt_load_fn LoadEc;
OSSL_FUNC_keymgmt_import_fn ImportEc;
OSSL_FUNC_keymgmt_import_types_fn EcTypes;
OSSL_FUNC_keymgmt_gettable_params_fn EcGettable;
OSSL_FUNC_keymgmt_query_operation_name_fn EcOperationName;

KeyData* AsKey(void* keydata) { return static_cast<KeyData*>(keydata); }
const KeyData* AsKey(const void* keydata) { return static_cast<const KeyData*>(keydata); }

void* NewKey(void* provctx) {
  // An empty key for OpenSSL to import a public key into; OpenSSL owns it.
  return std::make_unique<KeyData>(KeyData{ProviderContext::From(provctx), nullptr}).release();
}

void FreeKey(void* keydata) { std::unique_ptr<KeyData> owned(AsKey(keydata)); }

// The store hands over the address of its shared pointer to the key object,
// valid while the store's object callback runs, which is when OpenSSL loads.
void* LoadKey(const void* reference, size_t reference_size, std::uint32_t algorithm) {
  if (reference == nullptr || reference_size != sizeof(const std::shared_ptr<const KeyObject>*))
    return nullptr;
  const std::shared_ptr<const KeyObject>* source = nullptr;
  std::memcpy(&source, reference, sizeof(source));
  if (source == nullptr || *source == nullptr || (*source)->Algorithm() != algorithm)
    return nullptr;
  // OpenSSL owns the key data until FreeKey.
  return std::make_unique<KeyData>(KeyData{(*source)->Provider(), *source}).release();
}
void* LoadRsa(const void* reference, size_t size) {
  return LoadKey(reference, size, X509_Auth_Algorithm_Rsa);
}
void* LoadEc(const void* reference, size_t size) {
  return LoadKey(reference, size, X509_Auth_Algorithm_Ec);
}

int HasKey(const void* keydata, int selection) {
  const KeyData* data = AsKey(keydata);
  if (data == nullptr || data->key == nullptr) return 0;
  if ((selection & OSSL_KEYMGMT_SELECT_PRIVATE_KEY) != 0 && !data->key->HasPrivate()) return 0;
  return 1;
}

int MatchKeys(const void* keydata1, const void* keydata2, int /*selection*/) {
  const KeyData* a = AsKey(keydata1);
  const KeyData* b = AsKey(keydata2);
  if (a == nullptr || b == nullptr || a->key == nullptr || b->key == nullptr) return 0;
  // The two halves belong together, so the public halves decide.
  return EVP_PKEY_eq(a->key->PublicKey(), b->key->PublicKey()) == 1;
}

int ImportKey(void* keydata, int selection, const OSSL_PARAM params[], const char* type,
              std::uint32_t algorithm) {
  KeyData* data = AsKey(keydata);
  if (data == nullptr || data->provider == nullptr || data->key != nullptr) return 0;
  // A private key belongs to the provider that made it: keeping only its
  // public half here would give a key that cannot do what is asked of it.
  if (OSSL_PARAM_locate_const(params, OSSL_PKEY_PARAM_RSA_D) != nullptr ||
      OSSL_PARAM_locate_const(params, OSSL_PKEY_PARAM_PRIV_KEY) != nullptr ||
      (selection & OSSL_KEYMGMT_SELECT_PUBLIC_KEY) == 0)
    return 0;
  // Refused without an error: OpenSSL tries imports routinely, comparing keys.
  const ErrorMark mark;
  const ProviderContext::CryptoContext crypto = data->provider->Crypto();
  EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(crypto.libctx, type, crypto.properties));
  EVP_PKEY* made = nullptr;
  if (context == nullptr || EVP_PKEY_fromdata_init(context.get()) <= 0 ||
      EVP_PKEY_fromdata(context.get(), &made, EVP_PKEY_PUBLIC_KEY,
                        const_cast<OSSL_PARAM*>(params)) <= 0)
    return 0;
  data->key = KeyObject::PublicOnly(data->provider, algorithm, EvpPkeyPtr(made));
  return 1;
}
int ImportRsa(void* keydata, int selection, const OSSL_PARAM params[]) {
  return ImportKey(keydata, selection, params, "RSA", X509_Auth_Algorithm_Rsa);
}
int ImportEc(void* keydata, int selection, const OSSL_PARAM params[]) {
  return ImportKey(keydata, selection, params, "EC", X509_Auth_Algorithm_Ec);
}

int ExportKey(void* keydata, int selection, OSSL_CALLBACK* callback, void* argument) {
  const KeyData* data = AsKey(keydata);
  if (data == nullptr || data->key == nullptr) return 0;
  // Refused without an error: OpenSSL tries this routinely before it falls
  // back to this provider's own operations.
  if ((selection & OSSL_KEYMGMT_SELECT_PRIVATE_KEY) != 0) return 0;
  return EVP_PKEY_export(data->key->PublicKey(), selection, callback, argument);
}

const OSSL_PARAM k_rsa_types[] = {OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_N, nullptr, 0),
                                  OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_E, nullptr, 0), OSSL_PARAM_END};
const OSSL_PARAM k_ec_types[] = {
    OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, nullptr, 0),
    OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_EC_ENCODING, nullptr, 0),
    OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT, nullptr, 0),
    OSSL_PARAM_octet_string(OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0), OSSL_PARAM_END};

const OSSL_PARAM* RsaTypes(int selection) {
  return (selection & OSSL_KEYMGMT_SELECT_PRIVATE_KEY) != 0 ? nullptr : k_rsa_types;
}
const OSSL_PARAM* EcTypes(int selection) {
  return (selection & OSSL_KEYMGMT_SELECT_PRIVATE_KEY) != 0 ? nullptr : k_ec_types;
}

int GetParams(void* keydata, OSSL_PARAM params[]) {
  const KeyData* data = AsKey(keydata);
  if (data == nullptr || data->key == nullptr) return 0;
  // OpenSSL's own key answers for the public half: bits, security bits,
  // maximum signature size, default digest, group and encoded point.
  return EVP_PKEY_get_params(data->key->PublicKey(), params);
}

const OSSL_PARAM* RsaGettable(void*) {
  static const OSSL_PARAM params[] = {
      OSSL_PARAM_int(OSSL_PKEY_PARAM_BITS, nullptr),
      OSSL_PARAM_int(OSSL_PKEY_PARAM_SECURITY_BITS, nullptr),
      OSSL_PARAM_int(OSSL_PKEY_PARAM_MAX_SIZE, nullptr),
      OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_DEFAULT_DIGEST, nullptr, 0),
      OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_N, nullptr, 0),
      OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_E, nullptr, 0),
      OSSL_PARAM_END};
  return params;
}
const OSSL_PARAM* EcGettable(void*) {
  static const OSSL_PARAM params[] = {
      OSSL_PARAM_int(OSSL_PKEY_PARAM_BITS, nullptr),
      OSSL_PARAM_int(OSSL_PKEY_PARAM_SECURITY_BITS, nullptr),
      OSSL_PARAM_int(OSSL_PKEY_PARAM_MAX_SIZE, nullptr),
      OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_DEFAULT_DIGEST, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_EC_ENCODING, nullptr, 0),
      OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT, nullptr, 0),
      OSSL_PARAM_octet_string(OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, nullptr, 0),
      OSSL_PARAM_octet_string(OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0),
      OSSL_PARAM_END};
  return params;
}

// OpenSSL 3.0 looks an EC key's signature up under this name ("ECDSA"), not
// under the key type's.
const char* RsaOperationName(int) { return "RSA"; }
const char* EcOperationName(int operation_id) {
  return operation_id == OSSL_OP_SIGNATURE ? "ECDSA" : "EC";
}

}  // namespace

const OSSL_DISPATCH k_rsa_keymgmt_functions[] = {
    {OSSL_FUNC_KEYMGMT_NEW, DispatchCast<NewKey>()},
    {OSSL_FUNC_KEYMGMT_FREE, DispatchCast<FreeKey>()},
    {OSSL_FUNC_KEYMGMT_LOAD, DispatchCast<LoadRsa>()},
    {OSSL_FUNC_KEYMGMT_HAS, DispatchCast<HasKey>()},
    {OSSL_FUNC_KEYMGMT_MATCH, DispatchCast<MatchKeys>()},
    {OSSL_FUNC_KEYMGMT_IMPORT, DispatchCast<ImportRsa>()},
    {OSSL_FUNC_KEYMGMT_IMPORT_TYPES, DispatchCast<RsaTypes>()},
    {OSSL_FUNC_KEYMGMT_EXPORT, DispatchCast<ExportKey>()},
    {OSSL_FUNC_KEYMGMT_EXPORT_TYPES, DispatchCast<RsaTypes>()},
    {OSSL_FUNC_KEYMGMT_GET_PARAMS, DispatchCast<GetParams>()},
    {OSSL_FUNC_KEYMGMT_GETTABLE_PARAMS, DispatchCast<RsaGettable>()},
    {OSSL_FUNC_KEYMGMT_QUERY_OPERATION_NAME, DispatchCast<RsaOperationName>()},
    {0, nullptr}};

const OSSL_DISPATCH k_ec_keymgmt_functions[] = {
    {OSSL_FUNC_KEYMGMT_NEW, DispatchCast<NewKey>()},
    {OSSL_FUNC_KEYMGMT_FREE, DispatchCast<FreeKey>()},
    {OSSL_FUNC_KEYMGMT_LOAD, DispatchCast<LoadEc>()},
    {OSSL_FUNC_KEYMGMT_HAS, DispatchCast<HasKey>()},
    {OSSL_FUNC_KEYMGMT_MATCH, DispatchCast<MatchKeys>()},
    {OSSL_FUNC_KEYMGMT_IMPORT, DispatchCast<ImportEc>()},
    {OSSL_FUNC_KEYMGMT_IMPORT_TYPES, DispatchCast<EcTypes>()},
    {OSSL_FUNC_KEYMGMT_EXPORT, DispatchCast<ExportKey>()},
    {OSSL_FUNC_KEYMGMT_EXPORT_TYPES, DispatchCast<EcTypes>()},
    {OSSL_FUNC_KEYMGMT_GET_PARAMS, DispatchCast<GetParams>()},
    {OSSL_FUNC_KEYMGMT_GETTABLE_PARAMS, DispatchCast<EcGettable>()},
    {OSSL_FUNC_KEYMGMT_QUERY_OPERATION_NAME, DispatchCast<EcOperationName>()},
    {0, nullptr}};

}  // namespace x509auth_provider
