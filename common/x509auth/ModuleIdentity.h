#pragma once
// How x509auth's own PKCS#11 module names itself (C_GetInfo, C_GetTokenInfo).
// The library reads the same words to recognise that module, or a proxy
// that leads back to it, when it is offered one as the smart cards' module:
// loading it there would be the library asking itself for its certificates.
namespace x509auth_common {

inline constexpr const char* k_module_manufacturer = "x509auth";
inline constexpr const char* k_token_model = "libx509auth";

}  // namespace x509auth_common
