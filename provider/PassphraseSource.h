#pragma once
// The application's passphrase callback as a store load handed it over, and
// the answer it gave. The callback points into the application's
// OSSL_STORE_CTX, so it is usable only until that store is closed; the
// answer is kept for as long as the keys loaded from that store live, so
// that every later operation of such a key (a key file is read again for
// each signature) is served without asking again. The answer lives in
// OpenSSL's secure heap, is never logged, and is wiped when the source goes.
// One process-wide lock (ProcessLocks::Passphrases) covers every source: a
// prompt runs inside a library call, and those are made one at a time.
#include <openssl/core.h>

#include <cstddef>
#include <string>

namespace x509auth_provider {

class PassphraseSource {
 public:
  PassphraseSource(OSSL_PASSPHRASE_CALLBACK* callback, void* argument)
      : callback_(callback), argument_(argument) {}
  ~PassphraseSource();
  PassphraseSource(const PassphraseSource&) = delete;
  PassphraseSource& operator=(const PassphraseSource&) = delete;

  // The kept answer, or else asks the application for a secret (showing
  // the key file or token |prompt| names) and keeps its answer. Writes at
  // most |size| bytes to |buffer| and returns their number, or -1 when
  // there is no answer and the callback is gone, refused or failed.
  long Ask(const std::string& prompt, char* buffer, std::size_t size) const;
  // Drops the kept answer, after it turned out wrong.
  void Forget() const;
  // The application's store is closing: its callback goes, the answer stays.
  void Invalidate();
  bool Valid() const;

 private:
  void Keep(const char* answer, std::size_t length) const;

  OSSL_PASSPHRASE_CALLBACK* callback_;
  void* argument_;
  mutable char* answer_ = nullptr;  // OPENSSL_secure_malloc'd, or null
  mutable std::size_t answer_length_ = 0;
};

}  // namespace x509auth_provider
