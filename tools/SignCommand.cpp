#include "SignCommand.h"

#include <openssl/rsa.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

#include "CommandLibrarySession.h"
#include "Evidence.h"
#include "Formatting.h"
#include "InputOutput.h"
#include "KeyFileCheck.h"
#include "OpenSslHandles.h"
#include "OptionChecks.h"
#include "Report.h"
#include "x509auth/LibraryOwned.h"

namespace x509auth_tool {
namespace {

using x509auth_common::LibraryOwned;
using x509auth_common::Receive;

struct HashChoice {
  const char* name;
  X509_Auth_HashType type;
  const EVP_MD* (*md)();
};

const HashChoice k_hashes[] = {{"sha1", X509_Auth_HashType_Sha1, EVP_sha1},
                               {"sha256", X509_Auth_HashType_Sha256, EVP_sha256},
                               {"sha384", X509_Auth_HashType_Sha384, EVP_sha384},
                               {"sha512", X509_Auth_HashType_Sha512, EVP_sha512}};

// PKCS#1 v1.5 (or PSS with MGF1 of the same digest and a digest-long salt)
// with the digest's algorithm for RSA, DER ECDSA for EC: what the library
// produces.
bool Verifies(const X509_Auth_Certificate& record, const EVP_MD* md, const unsigned char* digest,
              std::size_t digest_length, const X509_Auth_Signature& signature, bool pss) {
  X509Ptr cert = RecordCertificate(record);
  if (!cert) return false;
  EvpPkeyPtr key(X509_get_pubkey(cert.get()));
  if (!key) return false;
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
  if (!ctx || EVP_PKEY_verify_init(ctx.get()) <= 0) return false;
  if (EVP_PKEY_base_id(key.get()) == EVP_PKEY_RSA &&
      (EVP_PKEY_CTX_set_rsa_padding(ctx.get(), pss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING) <=
           0 ||
       EVP_PKEY_CTX_set_signature_md(ctx.get(), md) <= 0))
    return false;
  if (pss && (EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), md) <= 0 ||
              EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx.get(), RSA_PSS_SALTLEN_DIGEST) <= 0))
    return false;
  return EVP_PKEY_verify(ctx.get(), signature.data, signature.length, digest, digest_length) == 1;
}

// The input's digest.
struct Digest {
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
};

// Hashes --in with |hash|; nullopt after printing why.
std::optional<Digest> HashInput(const std::string& in, const HashChoice& hash) {
  // A terminal on standard input would otherwise wait without a word.
  if (in == "-" && isatty(STDIN_FILENO) == 1)
    Note("reading the data to sign from the terminal; end it with Ctrl-D (or give --in FILE)");
  Digest digest;
  EvpMdCtxPtr context(EVP_MD_CTX_new());
  const bool started = context && EVP_DigestInit_ex(context.get(), hash.md(), nullptr) == 1;
  if (started && !DigestInput(in, context.get())) return std::nullopt;
  if (!started || EVP_DigestFinal_ex(context.get(), digest.bytes, &digest.length) != 1) {
    Fail("cannot hash the input with " + std::string(hash.name));
    return std::nullopt;
  }
  return digest;
}

// The library's signature over |digest|; null after printing why.
LibraryOwned<X509_Auth_Signature> SignDigest(const X509_Auth_Certificate& record,
                                             const HashChoice& hash, const Digest& digest,
                                             bool pss) {
  const uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa, X509_Auth_Algorithm_Ec};
  LibraryOwned<X509_Auth_Signature> signature;
  Evidence::BeginStep();
  // RSA-PSS with a salt as long as the digest, as TLS 1.3 signs.
  const X509_Auth_Result result =
      pss ? X509_Auth_SignHashPss(record.thumbprint, hash.type, digest.bytes,
                                  X509_AUTH_PSS_SALT_DIGEST, Receive(signature))
          : X509_Auth_SignHash(record.thumbprint, 2, algorithms, hash.type, digest.bytes,
                               Receive(signature));
  if (result.code != X509_Auth_ResultCode_Success || !signature) {
    Fail(CommandLibrarySession::KeyFailure("signing with " + std::string(record.name), result));
    return nullptr;
  }
  return signature;
}

// The signature to --out, or in hex to standard output; false when it did
// not reach its file (the failure already said).
bool WriteSignature(const std::string& out, const X509_Auth_Signature& signature) {
  if (!out.empty())
    return WriteOutput(out, signature.data, static_cast<std::size_t>(signature.length));
  PrintOut(Hex(signature.data, static_cast<std::size_t>(signature.length)) + "\n");
  // The note after it claims the signature: it must have reached its file.
  return FlushStandardOutput();
}

std::string Describe(const X509_Auth_Signature& signature, const SignOptions& options) {
  return std::to_string(signature.length) + "-byte " +
         (signature.algorithm != X509_Auth_Algorithm_Rsa ? "ECDSA"
          : options.pss                                  ? "RSA-PSS"
                                                         : "RSA PKCS#1 v1.5") +
         " signature over the " + options.hash + " digest";
}

}  // namespace

int RunSign(const GlobalOptions& global, const SignOptions& options) {
  const HashChoice* hash = nullptr;
  for (const HashChoice& choice : k_hashes)
    if (options.hash == choice.name) hash = &choice;
  if (hash == nullptr) return FailPlain("unknown hash " + options.hash), k_exit_usage;

  CommandLibrarySession session(global);
  if (!session.Start()) return k_exit_failed;
  const X509_Auth_Certificate* record = session.Find(options.thumbprint);
  if (record == nullptr) return k_exit_failed;
  if (record->cert_type == X509_Auth_CertificateType_FileBased && record->key_path != nullptr)
    if (const std::optional<std::string> exposed = KeyFileExposure(record->key_path))
      Warn(*exposed);
  const std::optional<Digest> digest = HashInput(options.in, *hash);
  if (!digest) return k_exit_failed;
  if (options.pss && record->key_algorithm_group != X509_Auth_KeyAlgorithmGroup_Rsa)
    return FailPlain("--pss is for RSA keys; " + std::string(record->name) + " has an " +
                     KeyAlgorithmName(record->key_algorithm_group) + " key"),
           k_exit_usage;

  const LibraryOwned<X509_Auth_Signature> signature =
      SignDigest(*record, *hash, *digest, options.pss);
  if (!signature) return k_exit_failed;
  const bool verified =
      Verifies(*record, hash->md(), digest->bytes, digest->length, *signature, options.pss);
  if (!WriteSignature(options.out, *signature)) return k_exit_failed;
  const std::string what = Describe(*signature, options);
  if (!verified) return Fail("the " + what + " does NOT verify with the certificate's public key");
  Note(what + ", verified with the certificate's public key");
  return k_exit_ok;
}

Command AddSignCommand(CLI::App& app, const GlobalOptions& global) {
  auto options = std::make_shared<SignOptions>();
  CLI::App* command =
      app.add_subcommand("sign", "Hash the input and sign the digest with a certificate's key");
  AddThumbprintArgument(*command, options->thumbprint);
  command->add_option("--hash", options->hash, "Digest algorithm")
      ->type_name("sha1|sha256|sha384|sha512")
      ->check(OneOf({"sha1", "sha256", "sha384", "sha512"}))
      ->capture_default_str();
  AddInputAndOutput(*command, options->in, options->out,
                    "Write the raw signature here instead of hex to stdout");
  command->add_flag("--pss", options->pss,
                    "RSA-PSS (salt as long as the digest) instead of PKCS#1 v1.5");
  return {command, [&global, options] { return RunSign(global, *options); }, nullptr};
}

}  // namespace x509auth_tool
