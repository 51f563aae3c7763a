#pragma once
// What the provider's benchmarks share: one TLS handshake between a client
// and a server in memory, a key loaded through the provider's store, and
// the answer to its password prompt.
#include <benchmark/benchmark.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/store.h>
#include <openssl/ui.h>

#include <cstring>
#include <memory>
#include <string>

#include "x509auth/OpenSslPtr.h"

namespace x509auth_bench {

using SslCtxPtr = std::unique_ptr<SSL_CTX, x509auth_openssl::OpenSslDeleter<SSL_CTX, SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, x509auth_openssl::OpenSslDeleter<SSL, SSL_free>>;

// A PEM password callback's answer: |password| copied into |buffer|, or -1
// when it does not fit in |size| bytes.
inline int AnswerPassword(char* buffer, int size, const char* password) {
  const int length = static_cast<int>(std::strlen(password));
  if (length > size) return -1;
  std::memcpy(buffer, password, static_cast<std::size_t>(length));
  return length;
}

// One step of |ssl|'s side of a handshake, none once it is |done|; false
// when it failed rather than waited for the other side.
inline bool HandshakeStep(SSL* ssl, bool& done) {
  if (done) return true;
  const int r = SSL_do_handshake(ssl);
  if (r == 1)
    done = true;
  else if (SSL_get_error(ssl, r) != SSL_ERROR_WANT_READ)
    return false;
  return true;
}

// One full handshake over a memory BIO pair; false on failure.
inline bool Handshake(SSL_CTX* client_ctx, SSL_CTX* server_ctx) {
  SslPtr client(SSL_new(client_ctx));
  SslPtr server(SSL_new(server_ctx));
  BIO* client_bio = nullptr;
  BIO* server_bio = nullptr;
  if (!client || !server || BIO_new_bio_pair(&client_bio, 0, &server_bio, 0) != 1) return false;
  SSL_set_bio(client.get(), client_bio, client_bio);
  SSL_set_bio(server.get(), server_bio, server_bio);
  SSL_set_connect_state(client.get());
  SSL_set_accept_state(server.get());
  bool client_done = false;
  bool server_done = false;
  for (int round = 0; round < 100 && !(client_done && server_done); ++round) {
    if (!HandshakeStep(client.get(), client_done) || !HandshakeStep(server.get(), server_done))
      return false;
  }
  return client_done && server_done;
}

// The private key the store at |uri| gives in |ctx| (null: the default
// context), its secrets asked through |ui|; null when there is none.
inline EVP_PKEY* LoadKeyThroughStore(const std::string& uri, OSSL_LIB_CTX* ctx, UI_METHOD* ui) {
  OSSL_STORE_CTX* store =
      OSSL_STORE_open_ex(uri.c_str(), ctx, nullptr, ui, nullptr, nullptr, nullptr, nullptr);
  EVP_PKEY* key = nullptr;
  while (store != nullptr && !OSSL_STORE_eof(store)) {
    OSSL_STORE_INFO* info = OSSL_STORE_load(store);
    if (info == nullptr) break;
    if (OSSL_STORE_INFO_get_type(info) == OSSL_STORE_INFO_PKEY)
      key = OSSL_STORE_INFO_get1_PKEY(info);
    OSSL_STORE_INFO_free(info);
  }
  if (store != nullptr) OSSL_STORE_close(store);
  return key;
}

// The benchmark's loop: |count| TLS 1.3 handshakes with client
// authentication, the client's certificate |cert| and key |key| in |ctx|
// (null: the default context), against |server|.
inline void ClientHandshakes(benchmark::State& state, OSSL_LIB_CTX* ctx, X509* cert, EVP_PKEY* key,
                             SSL_CTX* server, int count) {
  SslCtxPtr client_ctx(SSL_CTX_new_ex(ctx, nullptr, TLS_client_method()));
  SSL_CTX_set_min_proto_version(client_ctx.get(), TLS1_3_VERSION);
  SSL_CTX_use_certificate(client_ctx.get(), cert);
  if (SSL_CTX_use_PrivateKey(client_ctx.get(), key) != 1) {
    state.SkipWithError("client key refused");
    return;
  }
  SSL_CTX_set_verify(client_ctx.get(), SSL_VERIFY_NONE, nullptr);
  SSL_CTX_set_session_cache_mode(client_ctx.get(), SSL_SESS_CACHE_OFF);
  for (auto _ : state) {
    for (int i = 0; i < count; ++i) {
      if (!Handshake(client_ctx.get(), server)) {
        state.SkipWithError("handshake failed");
        ERR_print_errors_fp(stderr);
        return;
      }
    }
  }
  state.counters["handshakes/s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * count, benchmark::Counter::kIsRate);
}

}  // namespace x509auth_bench
