#pragma once
// Tells whether a key file is encrypted, that is whether signing with it
// will ask for a password, without asking: the module needs this to set
// CKF_LOGIN_REQUIRED, and a trial signature per key at every listing would
// cost a private-key operation each. The answer is kept per file while the
// file's identity, size and times are unchanged.
#include <sys/types.h>

#include <map>
#include <string>

#include "x509auth/FileIdentity.h"

namespace x509auth_pkcs11 {

class KeyFileProbe {
 public:
  // True for a PEM key marked encrypted ("ENCRYPTED PRIVATE KEY", or a
  // traditional key with "Proc-Type: 4,ENCRYPTED") and for DER holding an
  // encrypted PKCS#8 structure. False for anything else, a missing file
  // included (signing then fails without asking), and for a FIFO, a device
  // or a file over 4 MiB, which is skipped with one log line.
  bool IsEncrypted(const std::string& path);

 private:
  struct Entry {
    x509auth_common::FileIdentity identity;
    bool encrypted = false;
  };
  std::map<std::string, Entry> known_;
  // Why each refused path was refused, as last logged.
  std::map<std::string, std::string> refused_;
};

}  // namespace x509auth_pkcs11
