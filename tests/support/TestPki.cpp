#include "TestPki.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace x509auth_test {

namespace {

void Check(bool ok, const char* what) {
  if (!ok) {
    ERR_print_errors_fp(stderr);
    throw std::runtime_error(std::string("test PKI: ") + what);
  }
}

std::string BioText(BIO* bio) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<std::size_t>(length));
}

void AddExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  Check(ext != nullptr, "extension");
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}

void SetTime(ASN1_TIME* field, const std::string& text, long default_offset_days) {
  if (text.empty()) {
    Check(X509_gmtime_adj(field, default_offset_days * 24 * 3600) != nullptr, "time");
    return;
  }
  Check(ASN1_TIME_set_string(field, text.c_str()) == 1, "time text");
}

}  // namespace

TestKey MakeKey(KeyKind kind) {
  EVP_PKEY* key = nullptr;
  switch (kind) {
    case KeyKind::k_rsa:
    case KeyKind::k_rsa_pss: {
      std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
          EVP_PKEY_CTX_new_id(kind == KeyKind::k_rsa ? EVP_PKEY_RSA : EVP_PKEY_RSA_PSS, nullptr),
          &EVP_PKEY_CTX_free);
      Check(ctx && EVP_PKEY_keygen_init(ctx.get()) > 0, "rsa keygen init");
      Check(EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), 2048) > 0, "rsa bits");
      Check(EVP_PKEY_keygen(ctx.get(), &key) > 0, "rsa keygen");
      break;
    }
    case KeyKind::k_ec: {
      std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
          EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr), &EVP_PKEY_CTX_free);
      Check(ctx && EVP_PKEY_keygen_init(ctx.get()) > 0, "ec keygen init");
      Check(EVP_PKEY_CTX_set_ec_paramgen_curve_nid(ctx.get(), NID_X9_62_prime256v1) > 0,
            "ec curve");
      Check(EVP_PKEY_keygen(ctx.get(), &key) > 0, "ec keygen");
      break;
    }
    case KeyKind::k_ed25519: {
      std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
          EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr), &EVP_PKEY_CTX_free);
      Check(ctx && EVP_PKEY_keygen_init(ctx.get()) > 0, "ed25519 keygen init");
      Check(EVP_PKEY_keygen(ctx.get(), &key) > 0, "ed25519 keygen");
      break;
    }
  }
  return TestKey(key);
}

TestKey SharedKey(KeyKind kind, int index) {
  static std::mutex mutex;
  static std::map<std::pair<int, int>, TestKey> keys;
  std::lock_guard<std::mutex> lock(mutex);
  TestKey& key = keys[{static_cast<int>(kind), index}];
  if (!key) key = MakeKey(kind);
  EVP_PKEY_up_ref(key.get());
  return TestKey(key.get());
}

CertOptions CaOptions(const std::string& common_name) {
  CertOptions options;
  options.common_name = common_name;
  options.is_ca = true;
  options.key_usage = "critical,keyCertSign,cRLSign";
  return options;
}

CertOptions ClientOptions(const std::string& common_name, const std::string& not_before,
                          const std::string& not_after) {
  CertOptions options;
  options.common_name = common_name;
  options.extended_key_usage = "clientAuth";
  options.key_usage = "critical,digitalSignature";
  options.not_before = not_before;
  options.not_after = not_after;
  return options;
}

std::vector<X509*> SortedStoreCerts(X509_STORE* store) {
  STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
  sk_X509_OBJECT_sort(objects);
  std::vector<X509*> certs;
  for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i)
    certs.push_back(X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i)));
  return certs;
}

TestX509 MakeCert(const CertOptions& options, EVP_PKEY* subject_key, X509* issuer,
                  EVP_PKEY* issuer_key) {
  static long next_serial = 1000;
  TestX509 cert(X509_new());
  Check(cert != nullptr, "X509_new");
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()),
                   options.serial != 0 ? options.serial : next_serial++);
  SetTime(X509_getm_notBefore(cert.get()), options.not_before, -1);
  SetTime(X509_getm_notAfter(cert.get()), options.not_after, 365);
  X509_set_pubkey(cert.get(), subject_key);

  X509_NAME* name = X509_get_subject_name(cert.get());
  if (!options.organisation.empty())
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(options.organisation.c_str()),
                               -1, -1, 0);
  if (!options.omit_common_name)
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(options.common_name.c_str()),
                               -1, -1, 0);
  if (options.omit_common_name && options.organisation.empty())
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("No Common Name"), -1, -1, 0);
  X509* signer = issuer != nullptr ? issuer : cert.get();
  X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
  EVP_PKEY* signing_key = issuer_key != nullptr ? issuer_key : subject_key;

  AddExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
  if (issuer != nullptr) AddExtension(cert.get(), signer, NID_authority_key_identifier, "keyid");
  if (options.is_ca) AddExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
  if (!options.key_usage.empty())
    AddExtension(cert.get(), signer, NID_key_usage, options.key_usage);
  if (!options.extended_key_usage.empty())
    AddExtension(cert.get(), signer, NID_ext_key_usage, options.extended_key_usage);

  // Ed25519 signs without a separate digest.
  const EVP_MD* md = EVP_PKEY_base_id(signing_key) == EVP_PKEY_ED25519 ? nullptr : EVP_sha256();
  Check(X509_sign(cert.get(), signing_key, md) > 0, "X509_sign");
  return cert;
}

Chain MakeChain(KeyKind leaf_kind, const std::string& leaf_name) {
  Chain chain;
  chain.root_key = SharedKey(KeyKind::k_rsa, 100);
  chain.intermediate_key = SharedKey(KeyKind::k_rsa, 101);
  chain.leaf_key = SharedKey(leaf_kind, 102);
  CertOptions root;
  root.common_name = "Test Root CA";
  root.is_ca = true;
  root.key_usage = "critical,keyCertSign,cRLSign";
  chain.root = MakeCert(root, chain.root_key.get());
  CertOptions intermediate = root;
  intermediate.common_name = "Test Intermediate CA";
  chain.intermediate =
      MakeCert(intermediate, chain.intermediate_key.get(), chain.root.get(), chain.root_key.get());
  CertOptions leaf;
  leaf.common_name = leaf_name;
  leaf.key_usage = "critical,digitalSignature,keyEncipherment";
  leaf.extended_key_usage = "clientAuth";
  if (leaf_kind == KeyKind::k_ec) leaf.key_usage = "critical,digitalSignature";
  chain.leaf =
      MakeCert(leaf, chain.leaf_key.get(), chain.intermediate.get(), chain.intermediate_key.get());
  return chain;
}

ForeignClient MakeClientOfUnknownCa(const std::string& leaf_name) {
  ForeignClient client;
  client.root_key = SharedKey(KeyKind::k_rsa, 103);
  client.leaf_key = SharedKey(KeyKind::k_rsa, 104);
  CertOptions root;
  root.common_name = "Unknown Root CA";
  root.is_ca = true;
  root.key_usage = "critical,keyCertSign,cRLSign";
  client.root = MakeCert(root, client.root_key.get());
  CertOptions leaf;
  leaf.common_name = leaf_name;
  leaf.key_usage = "critical,digitalSignature,keyEncipherment";
  leaf.extended_key_usage = "clientAuth";
  client.leaf = MakeCert(leaf, client.leaf_key.get(), client.root.get(), client.root_key.get());
  return client;
}

std::string CertToPem(X509* cert) {
  x509auth_openssl::BioPtr bio(BIO_new(BIO_s_mem()));
  Check(PEM_write_bio_X509(bio.get(), cert) == 1, "PEM_write_bio_X509");
  return BioText(bio.get());
}

std::map<std::string, std::string> PemsOfOneLength(
    const std::vector<std::string>& names,
    const std::function<TestX509(const std::string&)>& make) {
  std::map<std::size_t, std::map<std::string, std::string>> by_length;
  for (int round = 0; round < 200; ++round) {
    for (const std::string& name : names) {
      TestX509 cert = make(name);
      std::string pem = CertToPem(cert.get());
      std::map<std::string, std::string>& same = by_length[pem.size()];
      same.emplace(name, std::move(pem));
      if (same.size() == names.size()) return same;
    }
  }
  return {};
}

Bytes CertToDer(X509* cert) {
  const int length = i2d_X509(cert, nullptr);
  Check(length > 0, "i2d_X509");
  Bytes der(static_cast<std::size_t>(length));
  unsigned char* cursor = der.data();
  i2d_X509(cert, &cursor);
  return der;
}

Bytes Sha1Thumbprint(X509* cert) {
  Bytes digest(EVP_MAX_MD_SIZE);
  unsigned int length = 0;
  Check(X509_digest(cert, EVP_sha1(), digest.data(), &length) == 1, "X509_digest");
  digest.resize(length);
  return digest;
}

std::string LowerHex(const Bytes& bytes) {
  static constexpr char k_digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const unsigned char b : bytes) {
    text += k_digits[b >> 4];
    text += k_digits[b & 0x0f];
  }
  return text;
}

std::string KeyToPem(EVP_PKEY* key, const char* password) {
  x509auth_openssl::BioPtr bio(BIO_new(BIO_s_mem()));
  const EVP_CIPHER* cipher = password != nullptr ? EVP_aes_256_cbc() : nullptr;
  Check(PEM_write_bio_PKCS8PrivateKey(bio.get(), key, cipher, nullptr, 0, nullptr,
                                      const_cast<char*>(password)) == 1,
        "PEM_write_bio_PKCS8PrivateKey");
  return BioText(bio.get());
}

std::string KeyToTraditionalPem(EVP_PKEY* key, const char* password) {
  x509auth_openssl::BioPtr bio(BIO_new(BIO_s_mem()));
  const EVP_CIPHER* cipher = password != nullptr ? EVP_aes_256_cbc() : nullptr;
  const unsigned char* pass = reinterpret_cast<const unsigned char*>(password);
  const int pass_length = password != nullptr ? static_cast<int>(std::strlen(password)) : 0;
  Check(
      PEM_write_bio_PrivateKey_traditional(bio.get(), key, cipher, const_cast<unsigned char*>(pass),
                                           pass_length, nullptr, nullptr) == 1,
      "PEM_write_bio_PrivateKey_traditional");
  return BioText(bio.get());
}

Bytes KeyToDer(EVP_PKEY* key) {
  x509auth_openssl::BioPtr bio(BIO_new(BIO_s_mem()));
  Check(i2d_PKCS8PrivateKey_bio(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
        "i2d_PKCS8PrivateKey_bio");
  const std::string text = BioText(bio.get());
  return Bytes(text.begin(), text.end());
}

Bytes KeyToTraditionalDer(EVP_PKEY* key) {
  unsigned char* der = nullptr;
  const int length = i2d_PrivateKey(key, &der);
  const OpenSslBytesPtr owned(der);
  Check(length > 0, "i2d_PrivateKey");
  return Bytes(der, der + length);
}

Bytes KeyToEncryptedDer(EVP_PKEY* key, const char* password) {
  x509auth_openssl::BioPtr bio(BIO_new(BIO_s_mem()));
  Check(i2d_PKCS8PrivateKey_bio(bio.get(), key, EVP_aes_256_cbc(), nullptr, 0, nullptr,
                                const_cast<char*>(password)) == 1,
        "i2d_PKCS8PrivateKey_bio encrypted");
  const std::string text = BioText(bio.get());
  return Bytes(text.begin(), text.end());
}

bool VerifiesWithCertificate(X509* cert, const EVP_MD* md, const Bytes& digest,
                             const unsigned char* signature, std::size_t length) {
  EVP_PKEY* key = X509_get0_pubkey(cert);
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(key, nullptr),
                                                                  &EVP_PKEY_CTX_free);
  if (!ctx || EVP_PKEY_verify_init(ctx.get()) <= 0) return false;
  if (EVP_PKEY_base_id(key) == EVP_PKEY_RSA &&
      (EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) <= 0 ||
       EVP_PKEY_CTX_set_signature_md(ctx.get(), md) <= 0))
    return false;
  return EVP_PKEY_verify(ctx.get(), signature, length, digest.data(), digest.size()) == 1;
}

Bytes EncryptToCertificate(X509* cert, int padding, const Bytes& plaintext) {
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
      EVP_PKEY_CTX_new(X509_get0_pubkey(cert), nullptr), &EVP_PKEY_CTX_free);
  Check(ctx && EVP_PKEY_encrypt_init(ctx.get()) > 0, "encrypt init");
  Check(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) > 0, "encrypt padding");
  std::size_t length = 0;
  Check(EVP_PKEY_encrypt(ctx.get(), nullptr, &length, plaintext.data(), plaintext.size()) > 0,
        "encrypt length");
  Bytes out(length);
  Check(EVP_PKEY_encrypt(ctx.get(), out.data(), &length, plaintext.data(), plaintext.size()) > 0,
        "encrypt");
  out.resize(length);
  return out;
}

Bytes CiphertextWithBadPkcs1Padding(X509* cert) {
  const int size = EVP_PKEY_get_size(X509_get0_pubkey(cert));
  Check(size > 11 + 8, "RSA modulus size");
  // 00 01 FF..FF 00 payload: well formed, but for signatures.
  Bytes block(static_cast<std::size_t>(size), 0xFF);
  block[0] = 0x00;
  block[1] = 0x01;
  block[static_cast<std::size_t>(size) - 9] = 0x00;
  std::fill(block.end() - 8, block.end(), 0x5A);
  return EncryptToCertificate(cert, RSA_NO_PADDING, block);
}

void WriteFile(const std::filesystem::path& path, const std::string& content) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  Check(out.good(), "write file");
}

void WriteFile(const std::filesystem::path& path, const Bytes& content) {
  WriteFile(path, std::string(content.begin(), content.end()));
}

Bytes ReadFileBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "x509auth-test-XXXXXX").string();
  Check(mkdtemp(pattern.data()) != nullptr, "mkdtemp");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  // Restore permissions a test may have taken away, so removal can succeed.
  for (auto it = std::filesystem::recursive_directory_iterator(
           path_, std::filesystem::directory_options::skip_permission_denied, ignored);
       it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
    if (it->is_directory(ignored) && !it->is_symlink(ignored))
      std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                   std::filesystem::perm_options::add, ignored);
  }
  std::filesystem::remove_all(path_, ignored);
}

void InstallFileCert(const std::filesystem::path& base, const std::string& file_name, X509* cert,
                     EVP_PKEY* key, bool der) {
  if (der)
    WriteFile(base / "certs" / file_name, CertToDer(cert));
  else
    WriteFile(base / "certs" / file_name, CertToPem(cert));
  if (key == nullptr) return;
  const std::filesystem::path key_path = base / "keys" / (file_name + ".key");
  WriteFile(key_path, KeyToPem(key));
  // As a user keeps a key: readable by its owner only.
  std::filesystem::permissions(
      key_path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

}  // namespace x509auth_test
