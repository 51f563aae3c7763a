#include "smartcard/OwnModuleCheck.h"

#include <cstring>

#include "x509auth/ModuleIdentity.h"

namespace quorvant::shared::x509 {
namespace {

// libp11 keeps the module's blank-padded texts with the padding cut off.
bool Is(const char* text, const char* expected) {
  return text != nullptr && std::strcmp(text, expected) == 0;
}

}  // namespace

std::string OwnModuleCheck::LeadsBackToX509Auth(const PKCS11_CTX* context, const PKCS11_SLOT* slots,
                                                unsigned int slot_count) {
  if (context != nullptr && Is(context->manufacturer, x509auth_common::k_module_manufacturer))
    return "it is x509auth's own PKCS#11 module (manufacturer \"" +
           std::string(context->manufacturer) + "\")";
  for (unsigned int i = 0; slots != nullptr && i < slot_count; ++i) {
    const PKCS11_TOKEN* token = slots[i].token;
    if (token != nullptr && Is(token->manufacturer, x509auth_common::k_module_manufacturer) &&
        Is(token->model, x509auth_common::k_token_model))
      return "it leads back to x509auth's own PKCS#11 module (token \"" +
             std::string(token->label != nullptr ? token->label : "") + "\")";
  }
  return "";
}

}  // namespace quorvant::shared::x509
