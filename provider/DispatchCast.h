#pragma once
// The one cast of the dispatch tables, and the one guard of every entry
// point. OpenSSL's OSSL_DISPATCH holds every entry as void (*)(void); each
// entry is declared with OpenSSL's own type for its slot
// (OSSL_FUNC_signature_sign_fn and so on), so a wrong signature is a build
// error at the declaration, and only this cast forgets the type.
//
// The provider runs inside other people's programs, and an exception that
// left it would end them (std::terminate at the C boundary). So a table
// holds, for each entry point, a wrapper of the same type that catches
// everything, raises the provider's error and returns the slot's failure
// value: 0, or null.
#include <openssl/core.h>

#include <exception>
#include <string_view>
#include <type_traits>

namespace x509auth_provider {

// Raises the provider's error for an exception that reached entry point
// |entry| (a compiler's description naming the function). Never throws.
void RaiseUnexpected(std::string_view entry, const char* what) noexcept;

template <auto Function>
struct Guarded;

template <typename Result, typename... Arguments, Result (*Function)(Arguments...)>
struct Guarded<Function> {
  static Result Call(Arguments... arguments) noexcept {
    try {
      return Function(arguments...);
    } catch (const std::exception& failure) {
      RaiseUnexpected(__PRETTY_FUNCTION__, failure.what());
    } catch (...) {
      RaiseUnexpected(__PRETTY_FUNCTION__, "an exception of unknown type");
    }
    if constexpr (!std::is_void_v<Result>) return Result{};
  }
};

// The dispatch table's entry for |Function|, guarded.
template <auto Function>
inline auto DispatchCast() {
  return reinterpret_cast<void (*)(void)>(&Guarded<Function>::Call);
}

}  // namespace x509auth_provider
