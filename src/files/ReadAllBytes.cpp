#include "files/ReadAllBytes.h"

namespace quorvant::shared::x509 {

std::vector<unsigned char> ReadAllBytes(std::ifstream& stream) {
  stream.seekg(0, std::ios::end);
  const std::streamoff size = stream.tellg();
  stream.seekg(0, std::ios::beg);
  std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
  stream.read(reinterpret_cast<char*>(bytes.data()), size);
  return bytes;
}

}  // namespace quorvant::shared::x509
