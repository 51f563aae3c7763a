#pragma once
// What every harness shares: a per-process working directory laid out as a
// host's (the PKCS#11 module link, HOME, one base directory with "certs" and
// "keys"), host callbacks that format every log line and answer password
// prompts from a script, and a way to start each input from an empty base.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "TestPki.h"
#include "x509_auth.h"

namespace x509auth_fuzz {

// How the scripted host answers a password prompt.
enum class PasswordAnswer : std::uint8_t {
  k_right,      // the password the harness encrypts with
  k_wrong,      // a different password
  k_cancelled,  // status 1, as when the user closes the dialog
  k_over_long,  // longer than any buffer OpenSSL offers
  k_null_result,
  k_null_value,  // status 0 but no text
  k_count
};

// The password of every encrypted key the harnesses and the seeds make.
inline constexpr const char* k_right_password = "fuzz-password";

class FuzzHost {
 public:
  // Made once per process, on the first input: the working directory is
  // entered and the environment set before the library first looks at it.
  static FuzzHost& GetInstance();

  FuzzHost(const FuzzHost&) = delete;
  FuzzHost& operator=(const FuzzHost&) = delete;

  // The one configured base directory; "certs" and "keys" are emptied.
  const std::filesystem::path& Base() const { return base_; }
  void EmptyBase() const;
  // X509_Auth_Init with the base directory and the scripted callbacks: a
  // fresh key store, so nothing from the previous input is kept.
  void Init(PasswordAnswer answer) const;
  // Makes the host and lists once, so the PKCS#11 module is loaded before
  // libFuzzer starts timing inputs; for LLVMFuzzerInitialize.
  static void WarmUp();
  // How many prompts the last Init's script answered.
  static int PromptCount();

  // While it lives, the working directory is the host's (where the library
  // looks for the PKCS#11 module); libFuzzer's own relative paths (corpus,
  // artifacts) need the original one back between inputs.
  class InWorkDirectory {
   public:
    explicit InWorkDirectory(const FuzzHost& host);
    ~InWorkDirectory();
    InWorkDirectory(const InWorkDirectory&) = delete;
    InWorkDirectory& operator=(const InWorkDirectory&) = delete;

   private:
    std::filesystem::path previous_;
  };

 private:
  FuzzHost();

  x509auth_test::TempDir temp_;
  std::filesystem::path base_;
  std::filesystem::path work_;
};

// Writes |bytes| to |path|, replacing the file.
void WriteBytes(const std::filesystem::path& path, const std::uint8_t* bytes, std::size_t size);

// Splits |data| at every occurrence of k_part_separator; the seeds join
// several files with it so that one input can fill a directory.
inline constexpr const char* k_part_separator = "\n#--next-file--#\n";
std::vector<std::vector<std::uint8_t>> SplitParts(const std::uint8_t* data, std::size_t size,
                                                  std::size_t max_parts);

}  // namespace x509auth_fuzz
