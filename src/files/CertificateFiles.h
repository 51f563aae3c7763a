#pragma once
// Reading certificates from PEM or DER files, PEM-to-DER conversion and
// thumbprints. Readers never log: their callers decide what a missing
// certificate means.
#include <cstdint>
#include <filesystem>
#include <vector>

#include "base/OpenSslPtr.h"
#include "base/Thumbprint.h"

namespace quorvant::shared::x509 {

// GetThumbprintForX509Cert writes the SHA-1 digest of |cert|'s DER encoding
// to |thumbprint| and returns true; on failure |thumbprint| is untouched.
bool GetThumbprintForX509Cert(const X509* cert, Thumbprint* thumbprint);

// Each reader returns the first certificate of the file, or an empty handle.
X509Ptr ReadX509FromPemFile(const std::filesystem::path& path);
X509Ptr ReadX509FromDerFile(const std::filesystem::path& path);
// Tries PEM first and DER only when PEM yields nothing.
X509Ptr ReadX509FromDerOrPemFile(const std::filesystem::path& path);

// ConvertPemDataToDer replaces |der| with the DER encoding of the first
// certificate in the PEM text; on failure |der| is left as it was. The
// length is cut to 32 bits; a cut length that is negative as an int fails.
bool ConvertPemDataToDer(const unsigned char* pem, std::uint64_t length,
                         std::vector<unsigned char>& der);

}  // namespace quorvant::shared::x509
