// x509auth-host: a command-line host for libx509auth. It lists the client
// certificates the library finds, prints each one's CA chain, and signs a
// SHA-256 digest with every certificate's private key, checking each
// signature against the certificate's public key with OpenSSL.
//
//   x509auth-host [--dir BASE]... [--home-dir REL]... [--pin PIN]
//                 [--password PASSWORD] [--add-ca FILE]... [--sign] [--verbose]
//
// PINs and passwords are answered from the command line (a real host would
// ask its user); log lines at Warning and above are printed, all of them
// with --verbose.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "x509_auth.h"

namespace {

struct Options {
  std::vector<std::string> dirs;
  std::vector<std::string> home_dirs;
  std::vector<std::string> cas;
  std::string pin;
  std::string password;
  bool sign = false;
  bool verbose = false;
};

Options options;

struct HeldAnswer {
  X509_Auth_PinEntryResult result;
  std::string value;
};

__attribute__((format(printf, 2, 0))) void OnLog(X509_Auth_LogPriority priority,
                                                 const char* format, va_list arguments) {
  if (!options.verbose && priority < X509_Auth_LogPriority_Error) return;
  static const char* const names[] = {"debug", "info", "warning", "error"};
  std::fprintf(stderr, "  [%s] ", names[priority & 3]);
  std::vfprintf(stderr, format, arguments);
  std::fputc('\n', stderr);
}

X509_Auth_PinEntryResult* OnPinEntry(const char* title, const char* prompt) {
  const bool is_pin = std::strcmp(title, "Enter pin") == 0;
  const std::string& answer = is_pin ? options.pin : options.password;
  std::printf("  prompt \"%s\": %s -> %s\n", title, prompt,
              answer.empty() ? "cancelled" : "answered from the command line");
  auto held = std::make_unique<HeldAnswer>();
  held->value = answer;
  held->result.value = held->value.c_str();
  held->result.status = answer.empty() ? 1 : 0;
  // Ownership goes to the library until it hands the result back below.
  return &held.release()->result;
}

void OnFreePinEntryResult(X509_Auth_PinEntryResult* result) {
  // |result| is the first member of a HeldAnswer made above.
  std::unique_ptr<HeldAnswer> held(reinterpret_cast<HeldAnswer*>(result));
}

void OnMessage(const char* message, const char* title) {
  std::printf("  message \"%s\": %s\n", title, message);
}

std::string Hex(const uint8_t* bytes, std::size_t length) {
  std::string text;
  char digits[3];
  for (std::size_t i = 0; i < length; ++i) {
    std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
    text += digits;
  }
  return text;
}

bool VerifySignature(const X509_Auth_Certificate& record, const unsigned char* digest,
                     const X509_Auth_Signature& signature) {
  const unsigned char* cursor = record.encoded;
  std::unique_ptr<X509, decltype(&X509_free)> cert(
      d2i_X509(nullptr, &cursor, static_cast<long>(record.encoded_length)), &X509_free);
  if (!cert) return false;
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(X509_get_pubkey(cert.get()),
                                                          &EVP_PKEY_free);
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
      EVP_PKEY_CTX_new(key.get(), nullptr), &EVP_PKEY_CTX_free);
  if (!ctx || EVP_PKEY_verify_init(ctx.get()) <= 0) return false;
  if (signature.algorithm == X509_Auth_Algorithm_Rsa) {
    EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING);
    EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha256());
  }
  return EVP_PKEY_verify(ctx.get(), signature.data, signature.length, digest, 32) == 1;
}

int Usage() {
  std::fprintf(stderr,
               "usage: x509auth-host [--dir BASE]... [--home-dir REL]... [--pin PIN]\n"
               "                     [--password PASSWORD] [--add-ca FILE]... [--sign] "
               "[--verbose]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  // Log lines go to stderr; keep them in step with the report on stdout.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    const char* v = nullptr;
    if (arg == "--dir" && (v = value())) options.dirs.push_back(v);
    else if (arg == "--home-dir" && (v = value())) options.home_dirs.push_back(v);
    else if (arg == "--add-ca" && (v = value())) options.cas.push_back(v);
    else if (arg == "--pin" && (v = value())) options.pin = v;
    else if (arg == "--password" && (v = value())) options.password = v;
    else if (arg == "--sign") options.sign = true;
    else if (arg == "--verbose") options.verbose = true;
    else return Usage();
  }

  std::vector<const char*> dirs, home_dirs;
  for (const std::string& dir : options.dirs) dirs.push_back(dir.c_str());
  for (const std::string& dir : options.home_dirs) home_dirs.push_back(dir.c_str());
  const X509_Auth_Settings settings{dirs.data(), dirs.size(), home_dirs.data(), home_dirs.size()};
  X509_Auth_Init(&settings, X509_Auth_Callbacks{OnLog, OnPinEntry, OnFreePinEntryResult, OnMessage});
  std::printf("libx509auth API version %d\n", X509_Auth_GetApiVersion());

  for (const std::string& path : options.cas) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<unsigned char> data((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
    const int added = X509_Auth_AddAdditionalCertificateAuthorityToStore(data.data(), data.size());
    std::printf("added CA %s: %s\n", path.c_str(), added ? "yes" : "no");
  }

  uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  if (!X509_Auth_LoadClientCertificates(&count, &certificates)) {
    std::printf("the certificate store could not be opened\n");
    X509_Auth_DeInit();
    return 1;
  }
  static const char* const types[] = {"file", "smart card", "other"};
  static const char* const groups[] = {"other", "RSA", "EC"};
  std::printf("%lu client certificate(s)\n", static_cast<unsigned long>(count));
  int failures = 0;
  for (uint64_t i = 0; i < count; ++i) {
    const X509_Auth_Certificate& record = certificates[i];
    std::printf("\n[%lu] %s\n", static_cast<unsigned long>(i + 1), record.name);
    std::printf("  issuer      %s\n", record.issuer_name);
    std::printf("  source      %s%s%s\n", types[record.cert_type % 3],
                record.key_path[0] ? ", key " : "", record.key_path);
    std::printf("  key         %s\n", groups[record.key_algorithm_group % 3]);
    std::printf("  thumbprint  %s\n", Hex(record.thumbprint, 20).c_str());
    for (uint64_t c = 0; c < record.ca_chain_count; ++c)
      std::printf("  chain[%lu]    %s\n", static_cast<unsigned long>(c),
                  Hex(record.ca_chain[c], 20).c_str());

    uint64_t blob_count = 0;
    X509_Auth_ASN_1* blobs = nullptr;
    if (X509_Auth_GetChainedCAsForCertificate(&record, &blob_count, &blobs) == 0) {
      std::printf("  added CAs in its chain: %lu\n", static_cast<unsigned long>(blob_count));
      X509_Auth_Free(blobs);
    }

    if (!options.sign) continue;
    unsigned char digest[32];
    const char message[] = "x509auth demo message";
    EVP_Digest(message, sizeof message - 1, digest, nullptr, EVP_sha256(), nullptr);
    const uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa, X509_Auth_Algorithm_Ec};
    const X509_Auth_Signature* signature = nullptr;
    const X509_Auth_Result result = X509_Auth_SignHash(record.thumbprint, 2, algorithms,
                                                       X509_Auth_HashType_Sha256, digest, &signature);
    if (result.code != 0 || signature == nullptr) {
      std::printf("  sign        failed: code %d, detail %lu\n", result.code,
                  static_cast<unsigned long>(result.detail));
      ++failures;
      continue;
    }
    const bool verified = VerifySignature(record, digest, *signature);
    std::printf("  sign        %lu-byte %s signature, %s\n",
                static_cast<unsigned long>(signature->length),
                signature->algorithm == X509_Auth_Algorithm_Rsa ? "RSA" : "ECDSA",
                verified ? "verified with the certificate's public key" : "DOES NOT VERIFY");
    if (!verified) ++failures;
    X509_Auth_Free(signature);
  }
  X509_Auth_Free(certificates);
  X509_Auth_DeInit();
  return failures == 0 ? 0 : 1;
}
