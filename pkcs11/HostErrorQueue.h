#pragma once
// The calling program's OpenSSL error queue, set aside for the length of one
// call into the module. The library drains the whole queue into its log on
// some failures and leaves errors of its own on others, and a program (a VPN
// client, a TLS stack) reads whatever is left as its own failure. So the
// program's errors are taken out on entry, and on exit what the module left
// is dropped and the program's errors are put back: every call leaves the
// queue as it found it, however many errors the call made.
#include <vector>

#include "x509auth/OpenSslErrorQueue.h"

namespace x509auth_pkcs11 {

class HostErrorQueue {
 public:
  HostErrorQueue() noexcept;
  ~HostErrorQueue();
  HostErrorQueue(const HostErrorQueue&) = delete;
  HostErrorQueue& operator=(const HostErrorQueue&) = delete;

 private:
  // Oldest first, as the queue held them.
  std::vector<x509auth_common::QueuedOpenSslError> saved_;
  // Marks the program had set (ERR_set_mark). OpenSSL does not tell on
  // which error each sits; they go back on the newest, where a mark made
  // just before calling the module was.
  int marks_ = 0;
};

}  // namespace x509auth_pkcs11
