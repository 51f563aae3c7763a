#pragma once
// Reading private-key files (PEM, possibly password-protected, or DER) and
// matching them to their certificate. Every failure is logged and returns an
// empty handle; nothing is thrown on bad input.
#include <cstdint>
#include <filesystem>

#include "base/OpenSslPtr.h"
#include "x509auth/RegularFile.h"

namespace quorvant::shared::x509 {

EvpPkeyPtr ReadPrivateKeyFromPemFile(const std::filesystem::path& path);
EvpPkeyPtr ReadPrivateKeyFromDerFile(const std::filesystem::path& path);
// Tries PEM first and DER only when PEM yields nothing.
EvpPkeyPtr ReadPrivateKeyFromDerOrPemFile(const std::filesystem::path& path);

// The key in an already opened and checked file, PEM first, then DER; a
// password is asked for at most once. Nothing is logged when neither parses.
EvpPkeyPtr ReadPrivateKeyFromOpenFile(x509auth_common::RegularFile file,
                                      const std::filesystem::path& path);

// How many times this thread's key reads have called for a password: a
// read that moved it read an encrypted key.
std::uint64_t PasswordCallbacksSoFar();

// GetPrivateKeyForX509Cert returns the key in |key_path| when it belongs to
// |cert|, and an empty handle otherwise.
EvpPkeyPtr GetPrivateKeyForX509Cert(X509* cert, const std::filesystem::path& cert_path,
                                    const std::filesystem::path& key_path);

}  // namespace quorvant::shared::x509
