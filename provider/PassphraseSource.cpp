#include "PassphraseSource.h"

#include <openssl/core_names.h>
#include <openssl/params.h>

#include <vector>

namespace x509auth_provider {

long PassphraseSource::Ask(const std::string& prompt, char* buffer, std::size_t size) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (callback_ == nullptr) return -1;
  // OpenSSL's terminal prompt shows the info text as "Enter pass phrase for
  // <info>:"; the library's prompt names the token or the key file.
  std::vector<char> info(prompt.begin(), prompt.end());
  info.push_back('\0');
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_PASSPHRASE_PARAM_INFO, info.data(), 0),
      OSSL_PARAM_construct_end()};
  std::size_t length = 0;
  if (callback_(buffer, size, &length, params, argument_) == 0 || length > size) return -1;
  return static_cast<long>(length);
}

void PassphraseSource::Invalidate() {
  std::lock_guard<std::mutex> lock(mutex_);
  callback_ = nullptr;
  argument_ = nullptr;
}

bool PassphraseSource::Valid() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return callback_ != nullptr;
}

}  // namespace x509auth_provider
