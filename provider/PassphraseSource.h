#pragma once
// The application's passphrase callback as a store load handed it over. It
// points into the application's OSSL_STORE_CTX, so it is usable only until
// that store is closed: the loader invalidates it in its close function, and
// a key asks for its PIN or password only while it is valid.
#include <openssl/core.h>

#include <mutex>
#include <string>

namespace x509auth_provider {

class PassphraseSource {
 public:
  PassphraseSource(OSSL_PASSPHRASE_CALLBACK* callback, void* argument)
      : callback_(callback), argument_(argument) {}
  PassphraseSource(const PassphraseSource&) = delete;
  PassphraseSource& operator=(const PassphraseSource&) = delete;

  // Asks the application for a secret, showing |prompt|; writes at most
  // |size| bytes to |buffer| and returns their number, or -1 when the
  // callback is gone, refused or failed.
  long Ask(const std::string& prompt, char* buffer, std::size_t size) const;
  void Invalidate();
  bool Valid() const;

 private:
  mutable std::mutex mutex_;
  OSSL_PASSPHRASE_CALLBACK* callback_;
  void* argument_;
};

}  // namespace x509auth_provider
