#include "ChainCommand.h"

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "CommandLibrarySession.h"
#include "Evidence.h"
#include "Formatting.h"
#include "InputOutput.h"
#include "OpenSslHandles.h"
#include "OptionChecks.h"
#include "Report.h"
#include "x509auth/LibraryOwned.h"

namespace x509auth_tool {

int RunChain(const GlobalOptions& global, const ChainOptions& options) {
  CommandLibrarySession session(global);
  if (!session.Start()) return k_exit_failed;
  const X509_Auth_Certificate* record = session.Find(options.thumbprint);
  if (record == nullptr) return k_exit_failed;

  uint64_t count = 0;
  x509auth_common::LibraryOwned<X509_Auth_ASN_1> blobs;
  Evidence::BeginStep();
  const int32_t code =
      X509_Auth_GetChainedCAsForCertificate(record, &count, x509auth_common::Receive(blobs));
  if (code != 0)
    return Fail("the library could not return the chain (code " + std::to_string(code) + ")");
  std::map<std::string, X509Ptr> handed_out;  // by thumbprint
  const X509_Auth_ASN_1* cas = blobs.get();
  for (uint64_t i = 0; i < count; ++i) {
    X509Ptr cert = ParseDer(cas[i].data, cas[i].length);
    if (!cert) continue;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    X509_digest(cert.get(), EVP_sha1(), digest, &length);
    handed_out[Hex(digest, length)] = std::move(cert);
  }

  if (options.pem) {
    X509Ptr leaf = RecordCertificate(*record);
    if (leaf) PrintOut(ToPem(leaf.get()));
    for (uint64_t i = 0; i < record->ca_chain_count; ++i) {
      const auto found = handed_out.find(Hex(record->ca_chain[i], X509_AUTH_THUMBPRINT_LENGTH));
      if (found != handed_out.end()) PrintOut(ToPem(found->second.get()));
    }
    return k_exit_ok;
  }
  for (uint64_t i = 0; i < record->ca_chain_count; ++i) {
    const std::string hex = Hex(record->ca_chain[i], X509_AUTH_THUMBPRINT_LENGTH);
    std::string subject;
    if (hex == ThumbprintHex(*record)) {
      subject = record->name;
    } else if (const auto found = handed_out.find(hex); found != handed_out.end()) {
      subject = CommonName(found->second.get());
    } else {
      // Trusted through the system's CA store: the library does not hand it out.
      subject = "(a system CA; not handed out by the library)";
    }
    PrintOut(std::to_string(i) + "  " + hex + "  " + Printable(subject) + "\n");
  }
  return k_exit_ok;
}

Command AddChainCommand(CLI::App& app, const GlobalOptions& global) {
  auto options = std::make_shared<ChainOptions>();
  CLI::App* command = app.add_subcommand("chain", "Show a certificate's chain, leaf first");
  AddThumbprintArgument(*command, options->thumbprint);
  command->add_flag("--pem", options->pem,
                    "Write the leaf and the CA certificates the library hands out as PEM");
  return {command, [&global, options] { return RunChain(global, *options); }, nullptr};
}

}  // namespace x509auth_tool
