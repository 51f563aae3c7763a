#pragma once
// The PIN typed at C_Login, kept only while the user is logged in: it
// answers every prompt of the library until C_Logout or C_Finalize. Held in
// OpenSSL's secure heap where there is one and wiped before release.
#include <cstddef>

namespace x509auth_pkcs11 {

class Pin {
 public:
  Pin() = default;
  ~Pin() { Clear(); }
  Pin(const Pin&) = delete;
  Pin& operator=(const Pin&) = delete;

  void Set(const unsigned char* value, std::size_t length);
  // Wipes and drops the value.
  void Clear();
  bool Present() const { return value_ != nullptr; }
  // NUL-terminated; valid while Present().
  const char* Value() const { return value_; }

 private:
  char* value_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace x509auth_pkcs11
