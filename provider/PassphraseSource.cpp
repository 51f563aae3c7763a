#include "PassphraseSource.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/params.h>

#include <cstring>
#include <vector>

#include "ProcessLocks.h"

namespace x509auth_provider {
namespace {

// OpenSSL's terminal prompt reads "Enter pass phrase for <info>:", so the
// info is only what the library's prompt names: the key file or the token.
std::string InfoOf(const std::string& prompt) {
  static const char* const k_prefixes[] = {"Enter password for: ", "Enter pin for "};
  for (const char* prefix : k_prefixes)
    if (prompt.compare(0, std::strlen(prefix), prefix) == 0)
      return prompt.substr(std::strlen(prefix));
  return prompt;
}

}  // namespace

PassphraseSource::~PassphraseSource() { Forget(); }

long PassphraseSource::Ask(const std::string& prompt, char* buffer, std::size_t size) const {
  std::lock_guard<ProcessLocks::Mutex> lock(ProcessLocks::Passphrases());
  if (answer_ != nullptr) {
    if (answer_length_ > size) return -1;
    std::memcpy(buffer, answer_, answer_length_);
    return static_cast<long>(answer_length_);
  }
  if (callback_ == nullptr) return -1;
  std::string info = InfoOf(prompt);
  std::vector<char> text(info.begin(), info.end());
  text.push_back('\0');
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_PASSPHRASE_PARAM_INFO, text.data(), 0),
      OSSL_PARAM_construct_end()};
  std::size_t length = 0;
  if (callback_(buffer, size, &length, params, argument_) == 0 || length > size) return -1;
  Keep(buffer, length);
  return static_cast<long>(length);
}

void PassphraseSource::Keep(const char* answer, std::size_t length) const {
  // Called with the lock held. One byte more, so that an empty answer is
  // kept too.
  answer_ = static_cast<char*>(OPENSSL_secure_malloc(length + 1));
  if (answer_ == nullptr) return;
  std::memcpy(answer_, answer, length);
  answer_length_ = length;
}

void PassphraseSource::Forget() const {
  std::lock_guard<ProcessLocks::Mutex> lock(ProcessLocks::Passphrases());
  if (answer_ != nullptr) OPENSSL_secure_clear_free(answer_, answer_length_ + 1);
  answer_ = nullptr;
  answer_length_ = 0;
}

void PassphraseSource::Invalidate() {
  std::lock_guard<ProcessLocks::Mutex> lock(ProcessLocks::Passphrases());
  callback_ = nullptr;
  argument_ = nullptr;
}

bool PassphraseSource::Valid() const {
  std::lock_guard<ProcessLocks::Mutex> lock(ProcessLocks::Passphrases());
  return callback_ != nullptr || answer_ != nullptr;
}

}  // namespace x509auth_provider
