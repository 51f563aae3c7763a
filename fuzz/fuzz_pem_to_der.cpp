// PEM-to-DER conversion on its own: whatever the text, the result is false
// with the output untouched, or true with exactly one DER certificate.
#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/OpenSslPtr.h"
#include "files/CertificateFiles.h"

using namespace quorvant::shared::x509;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact copy, so that a read past the given length is seen.
  const std::vector<unsigned char> pem(data, data + size);
  const std::vector<unsigned char> before{0xde, 0xad};
  std::vector<unsigned char> der = before;
  if (!ConvertPemDataToDer(pem.data(), pem.size(), der)) {
    if (der != before) __builtin_trap();
    return 0;
  }
  const unsigned char* cursor = der.data();
  X509Ptr parsed(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
  if (!parsed || cursor != der.data() + der.size()) __builtin_trap();
  return 0;
}
