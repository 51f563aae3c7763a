#pragma once
// Drops what OpenSSL queues inside one scope of the provider's own work: a
// fetch, a parse or a public-key operation that fails is reported by the
// provider's one error (or is an answer, such as a signature that does not
// verify), so OpenSSL's lines about it would only crowd the host's queue.
// A mark, not a setting aside: marks that OpenSSL set below stay intact.
namespace x509auth_provider {

class ErrorMark {
 public:
  ErrorMark();
  ~ErrorMark();
  ErrorMark(const ErrorMark&) = delete;
  ErrorMark& operator=(const ErrorMark&) = delete;
};

}  // namespace x509auth_provider
