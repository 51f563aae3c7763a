#pragma once
#include <new>

namespace quorvant::shared::x509 {

// Holds a process-wide object whose destructor never runs. The library may
// be ended (which empties such objects) from another library's exit handler
// after static objects are gone, as when OpenSSL's cleanup ends the provider
// that uses it; an object destroyed by then would be emptied a second time.
// What it holds is released by that ending, not by the process's exit.
template <typename T>
class NeverDestroyed {
 public:
  NeverDestroyed() { ::new (static_cast<void*>(storage_)) T(); }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;
  T& get() { return *std::launder(reinterpret_cast<T*>(storage_)); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace quorvant::shared::x509
