#pragma once
// Reading certificates from PEM or DER files, PEM-to-DER conversion and
// thumbprints. Readers never log: their callers decide what a missing
// certificate means.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "base/OpenSslPtr.h"
#include "base/Thumbprint.h"
#include "x509auth/RegularFile.h"

namespace quorvant::shared::x509 {

// GetThumbprintForX509Cert writes the SHA-1 digest of |cert|'s DER encoding
// to |thumbprint| and returns true; on failure |thumbprint| is untouched.
bool GetThumbprintForX509Cert(const X509* cert, Thumbprint* thumbprint);

// Each reader returns the first certificate of the file, or an empty handle.
// Only a regular file of at most x509auth_common::k_max_file_bytes is read:
// anything else, found on the opened descriptor, yields an empty handle
// without a byte read. errno tells why a file could not be opened.
X509Ptr ReadX509FromPemFile(const std::filesystem::path& path);
X509Ptr ReadX509FromDerFile(const std::filesystem::path& path);
// Tries PEM first and DER only when PEM yields nothing.
X509Ptr ReadX509FromDerOrPemFile(const std::filesystem::path& path);
// The same, also telling why a file was not read at all: |refusal| is
// RegularFile's (k_none when it was read) and |reason| its text.
X509Ptr ReadX509FromDerOrPemFile(const std::filesystem::path& path,
                                 x509auth_common::RegularFile::Refusal* refusal,
                                 std::string* reason);

// ConvertPemDataToDer replaces |der| with the DER encoding of the first
// certificate in the PEM text; on failure |der| is left as it was. The
// length is cut to 32 bits; a cut length that is negative as an int fails.
bool ConvertPemDataToDer(const unsigned char* pem, std::uint64_t length,
                         std::vector<unsigned char>& der);

}  // namespace quorvant::shared::x509
