#include "DecryptCommand.h"

#include <memory>
#include <optional>
#include <vector>

#include "CommandLibrarySession.h"
#include "Evidence.h"
#include "Formatting.h"
#include "InputOutput.h"
#include "OptionChecks.h"
#include "Report.h"
#include "x509auth/LibraryOwned.h"

namespace x509auth_tool {
namespace {

// Far above the ciphertext of the largest RSA key in use (16384 bits: 2 KiB),
// so that a mistaken input (a device, a large file) is refused at once
// instead of read into memory.
constexpr std::size_t k_max_ciphertext = 64 * 1024;

}  // namespace

int RunDecrypt(const GlobalOptions& global, const DecryptOptions& options) {
  const uint32_t padding = options.padding == "oaep" ? X509_Auth_DecryptAlgorithm_RsaOaep
                                                     : X509_Auth_DecryptAlgorithm_RsaPkcs1;
  CommandLibrarySession session(global);
  if (!session.Start()) return k_exit_failed;
  const X509_Auth_Certificate* record = session.Find(options.thumbprint);
  if (record == nullptr) return k_exit_failed;
  const std::optional<std::vector<unsigned char>> input =
      ReadInput(options.in, k_max_ciphertext, "an RSA ciphertext");
  if (!input) return k_exit_failed;

  x509auth_common::LibraryOwned<X509_Auth_ASN_1> plaintext;
  Evidence::BeginStep();
  const X509_Auth_Result result =
      X509_Auth_Decrypt(record->thumbprint, padding, input->size(), input->data(),
                        x509auth_common::Receive(plaintext));
  if (result.code != X509_Auth_ResultCode_Success || !plaintext)
    return Fail(
        CommandLibrarySession::KeyFailure("decrypting with " + std::string(record->name), result));
  // A new plaintext file is the user's alone.
  const bool written =
      WriteOutput(options.out, plaintext->data, static_cast<std::size_t>(plaintext->length), 0600);
  if (!written) return k_exit_failed;
  if (!options.out.empty())
    Note("decrypted " + std::to_string(plaintext->length) + " bytes to " + options.out);
  return k_exit_ok;
}

Command AddDecryptCommand(CLI::App& app, const GlobalOptions& global) {
  auto options = std::make_shared<DecryptOptions>();
  CLI::App* command =
      app.add_subcommand("decrypt", "Decrypt the input with a certificate's RSA key");
  AddThumbprintArgument(*command, options->thumbprint);
  command->add_option("--padding", options->padding, "RSA padding of the input")
      ->type_name("pkcs1|oaep")
      ->required()
      ->check(OneOf({"pkcs1", "oaep"}));
  AddInputAndOutput(*command, options->in, options->out,
                    "Write the plaintext here instead of stdout");
  return {command, [&global, options] { return RunDecrypt(global, *options); }, nullptr};
}

}  // namespace x509auth_tool
