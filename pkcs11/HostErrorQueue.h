#pragma once
// The calling program's OpenSSL error queue, set aside for the length of one
// call into the module. The library drains the whole queue into its log on
// some failures and leaves errors of its own on others, and a program (a VPN
// client, a TLS stack) reads whatever is left as its own failure. So the
// program's errors are taken out on entry, and on exit what the module left
// is dropped and the program's errors are put back: every call leaves the
// queue as it found it, however many errors the call made.
#include <string>
#include <vector>

namespace x509auth_pkcs11 {

class HostErrorQueue {
 public:
  HostErrorQueue() noexcept;
  ~HostErrorQueue();
  HostErrorQueue(const HostErrorQueue&) = delete;
  HostErrorQueue& operator=(const HostErrorQueue&) = delete;

 private:
  struct Error {
    unsigned long code = 0;
    std::string file;
    int line = 0;
    std::string function;
    std::string data;
    bool has_text = false;
  };
  // Oldest first, as the queue held them.
  std::vector<Error> saved_;
  // Marks the program had set (ERR_set_mark). OpenSSL does not tell on
  // which error each sits; they go back on the newest, where a mark made
  // just before calling the module was.
  int marks_ = 0;
};

}  // namespace x509auth_pkcs11
