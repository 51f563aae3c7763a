#pragma once
// The SoftHSM2 module a host test's library loaded, driven directly as
// another part of the same application would drive it: a card personalised
// or inserted, a reader reset ending the sessions.
#include <dlfcn.h>
#include <openssl/x509.h>
#include <p11-kit/pkcs11.h>

#include <functional>
#include <iterator>
#include <optional>
#include <string>

#include "SoftHsmToken.h"
#include "TestPki.h"

namespace x509auth_test {

// The SoftHSM2 module this process has loaded (through the library), used
// directly, as a second part of the same application would use it.
class LoadedSoftHsm {
 public:
  LoadedSoftHsm() {
    handle_ = dlopen(SoftHsmToken::ModulePath().c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle_ == nullptr) return;
    const auto get_list =
        reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle_, "C_GetFunctionList"));
    if (get_list != nullptr) get_list(&functions_);
  }
  ~LoadedSoftHsm() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  LoadedSoftHsm(const LoadedSoftHsm&) = delete;
  LoadedSoftHsm& operator=(const LoadedSoftHsm&) = delete;

  bool Loaded() const { return functions_ != nullptr; }

  // The slot whose token has this label, or whose token is not initialised
  // when |label| is empty.
  std::optional<CK_SLOT_ID> SlotOf(const std::string& label) const {
    CK_ULONG count = 32;
    CK_SLOT_ID ids[32];
    if (functions_->C_GetSlotList(CK_TRUE, ids, &count) != CKR_OK) return std::nullopt;
    for (CK_ULONG i = 0; i < count; ++i) {
      CK_TOKEN_INFO info{};
      if (functions_->C_GetTokenInfo(ids[i], &info) != CKR_OK) continue;
      const bool initialised = (info.flags & CKF_TOKEN_INITIALIZED) != 0;
      if (label.empty() ? !initialised : initialised && Padded(label) == Text(info.label))
        return ids[i];
    }
    return std::nullopt;
  }

  // Initialises the free token as |label| with the default PINs, as a card
  // personalised while the host runs; returns the first failing result.
  CK_RV InitFreeToken(const std::string& label) const {
    const std::optional<CK_SLOT_ID> slot = SlotOf("");
    if (!slot) return CKR_SLOT_ID_INVALID;
    std::string so_pin = SoftHsmToken::k_default_so_pin;
    std::string padded = Padded(label);
    CK_RV rv = functions_->C_InitToken(*slot, Utf8(so_pin), so_pin.size(), Utf8(padded));
    if (rv != CKR_OK) return rv;
    return InSession(*slot, CKU_SO, so_pin, [&](CK_SESSION_HANDLE session) {
      std::string pin = SoftHsmToken::k_default_pin;
      return functions_->C_InitPIN(session, Utf8(pin), pin.size());
    });
  }

  // Writes |cert| to the token labelled |token_label| as a token object.
  CK_RV CreateCertificate(const std::string& token_label, X509* cert,
                          const std::string& object_label) const {
    const std::optional<CK_SLOT_ID> slot = SlotOf(token_label);
    if (!slot) return CKR_SLOT_ID_INVALID;
    unsigned char* der = nullptr;
    const int length = i2d_X509(cert, &der);
    if (length <= 0) return CKR_GENERAL_ERROR;
    Bytes value(der, der + length);
    OPENSSL_free(der);
    unsigned char* subject_der = nullptr;
    const int subject_length = i2d_X509_NAME(X509_get_subject_name(cert), &subject_der);
    Bytes subject(subject_der, subject_der + subject_length);
    OPENSSL_free(subject_der);
    CK_OBJECT_CLASS object_class = CKO_CERTIFICATE;
    CK_CERTIFICATE_TYPE type = CKC_X_509;
    CK_BBOOL yes = CK_TRUE;
    unsigned char id[] = {0x42};
    std::string label = object_label;
    CK_ATTRIBUTE attributes[] = {
        {CKA_CLASS, &object_class, sizeof(object_class)},
        {CKA_CERTIFICATE_TYPE, &type, sizeof(type)},
        {CKA_TOKEN, &yes, sizeof(yes)},
        {CKA_ID, id, sizeof(id)},
        {CKA_LABEL, label.data(), label.size()},
        {CKA_SUBJECT, subject.data(), subject.size()},
        {CKA_VALUE, value.data(), value.size()},
    };
    return InSession(*slot, CKU_USER, SoftHsmToken::k_default_pin, [&](CK_SESSION_HANDLE session) {
      CK_OBJECT_HANDLE object = 0;
      return functions_->C_CreateObject(session, attributes, std::size(attributes), &object);
    });
  }

  // Ends every session of this process on every slot, and so every login.
  CK_RV CloseAllSessions() const {
    CK_ULONG count = 16;
    CK_SLOT_ID ids[16];
    CK_RV rv = functions_->C_GetSlotList(CK_TRUE, ids, &count);
    for (CK_ULONG i = 0; rv == CKR_OK && i < count; ++i)
      rv = functions_->C_CloseAllSessions(ids[i]);
    return rv;
  }

  // Ends every session of this process on the token, and so its login, as
  // a reader reset does.
  CK_RV CloseAllSessions(const std::string& token_label) const {
    const std::optional<CK_SLOT_ID> slot = SlotOf(token_label);
    if (!slot) return CKR_SLOT_ID_INVALID;
    return functions_->C_CloseAllSessions(*slot);
  }

 private:
  static std::string Padded(std::string label) {
    label.resize(32, ' ');
    return label;
  }
  template <std::size_t N>
  static std::string Text(const CK_UTF8CHAR (&field)[N]) {
    return std::string(reinterpret_cast<const char*>(field), N);
  }
  static CK_UTF8CHAR_PTR Utf8(std::string& text) {
    return reinterpret_cast<CK_UTF8CHAR_PTR>(text.data());
  }

  CK_RV InSession(CK_SLOT_ID slot, CK_USER_TYPE user, std::string pin,
                  const std::function<CK_RV(CK_SESSION_HANDLE)>& work) const {
    CK_SESSION_HANDLE session = 0;
    CK_RV rv = functions_->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr,
                                         nullptr, &session);
    if (rv != CKR_OK) return rv;
    rv = functions_->C_Login(session, user, Utf8(pin), pin.size());
    if (rv == CKR_OK || rv == CKR_USER_ALREADY_LOGGED_IN) {
      rv = work(session);
      // Leaves no login behind: the library's own login is what is tested.
      functions_->C_Logout(session);
    }
    functions_->C_CloseSession(session);
    return rv;
  }

  void* handle_ = nullptr;
  CK_FUNCTION_LIST_PTR functions_ = nullptr;
};

}  // namespace x509auth_test
