#pragma once
// What a secret-wipe observer was shown, for tests that check the library's
// copies of secrets are zero before their memory goes back.
#include <algorithm>
#include <cstddef>
#include <vector>

namespace x509auth_test {

struct WipedBuffer {
  std::size_t size;
  bool wiped;
};

// The buffers shown to RecordWipedBuffer, in order; tests clear it first.
inline std::vector<WipedBuffer>& WipedBuffers() {
  static std::vector<WipedBuffer> buffers;
  return buffers;
}

// An observer for SecretWipe::SetObserverForTesting.
inline void RecordWipedBuffer(const unsigned char* data, std::size_t size) {
  WipedBuffers().push_back(
      {size, std::all_of(data, data + size, [](unsigned char c) { return c == 0; })});
}

}  // namespace x509auth_test
