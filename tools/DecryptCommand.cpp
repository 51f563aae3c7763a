#include "DecryptCommand.h"

#include <optional>
#include <vector>

#include "CommandLibrarySession.h"
#include "Evidence.h"
#include "Formatting.h"
#include "InputOutput.h"
#include "Report.h"

namespace x509auth_tool {

int RunDecrypt(const GlobalOptions& global, const DecryptOptions& options) {
  const uint32_t padding = options.padding == "oaep" ? X509_Auth_DecryptAlgorithm_RsaOaep
                                                     : X509_Auth_DecryptAlgorithm_RsaPkcs1;
  CommandLibrarySession session(global);
  if (!session.Start()) return k_exit_failed;
  const X509_Auth_Certificate* record = session.Find(options.thumbprint);
  if (record == nullptr) return k_exit_failed;
  const std::optional<std::vector<unsigned char>> input = ReadInput(options.in);
  if (!input) return k_exit_failed;

  const X509_Auth_ASN_1* plaintext = nullptr;
  Evidence::BeginStep();
  const X509_Auth_Result result =
      X509_Auth_Decrypt(record->thumbprint, padding, input->size(), input->data(), &plaintext);
  if (result.code != X509_Auth_ResultCode_Success || plaintext == nullptr)
    return Fail(
        CommandLibrarySession::KeyFailure("decrypting with " + std::string(record->name), result));
  const bool written =
      WriteOutput(options.out, plaintext->data, static_cast<std::size_t>(plaintext->length));
  const std::size_t length = static_cast<std::size_t>(plaintext->length);
  X509_Auth_Free(plaintext);
  if (!written) return k_exit_failed;
  if (!options.out.empty())
    Note("decrypted " + std::to_string(length) + " bytes to " + options.out);
  return k_exit_ok;
}

}  // namespace x509auth_tool
