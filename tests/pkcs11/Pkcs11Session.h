#pragma once
// A session on the loaded module for in-process tests: initialise, open one
// session on the one slot, and the calls tests repeat (find by class and
// id, read an attribute, sign, decrypt).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Pkcs11Fixture.h"

namespace x509auth_test {

class ModuleSession {
 public:
  explicit ModuleSession(const LoadedModule& module) : ModuleSession(module.get()) {}
  // A module loaded by other means (a second copy of it).
  explicit ModuleSession(CK_FUNCTION_LIST* functions) : f_(functions) {
    EXPECT_EQ(f_->C_Initialize(nullptr), CKR_OK);
    CK_ULONG count = 1;
    EXPECT_EQ(f_->C_GetSlotList(CK_TRUE, &slot_, &count), CKR_OK);
    EXPECT_EQ(f_->C_OpenSession(slot_, CKF_SERIAL_SESSION, nullptr, nullptr, &session_), CKR_OK);
  }
  ~ModuleSession() { f_->C_Finalize(nullptr); }
  ModuleSession(const ModuleSession&) = delete;
  ModuleSession& operator=(const ModuleSession&) = delete;

  CK_FUNCTION_LIST* f() const { return f_; }
  CK_SESSION_HANDLE session() const { return session_; }
  CK_SLOT_ID slot() const { return slot_; }

  std::vector<CK_OBJECT_HANDLE> Find(std::vector<CK_ATTRIBUTE> templ) const {
    std::vector<CK_OBJECT_HANDLE> found;
    EXPECT_EQ(f_->C_FindObjectsInit(session_, templ.data(), templ.size()), CKR_OK);
    CK_OBJECT_HANDLE handles[16];
    CK_ULONG count = 0;
    do {
      EXPECT_EQ(f_->C_FindObjects(session_, handles, 16, &count), CKR_OK);
      found.insert(found.end(), handles, handles + count);
    } while (count == 16);
    EXPECT_EQ(f_->C_FindObjectsFinal(session_), CKR_OK);
    return found;
  }

  std::vector<CK_OBJECT_HANDLE> FindClass(CK_OBJECT_CLASS object_class,
                                          const Bytes& id = {}) const {
    std::vector<CK_ATTRIBUTE> templ = {{CKA_CLASS, &object_class, sizeof(object_class)}};
    if (!id.empty()) templ.push_back({CKA_ID, const_cast<unsigned char*>(id.data()), id.size()});
    return Find(templ);
  }

  CK_OBJECT_HANDLE One(CK_OBJECT_CLASS object_class, const Bytes& id) const {
    const auto found = FindClass(object_class, id);
    EXPECT_EQ(found.size(), 1u);
    return found.empty() ? CK_INVALID_HANDLE : found[0];
  }

  Bytes Attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    CK_ATTRIBUTE attribute{type, nullptr, 0};
    EXPECT_EQ(f_->C_GetAttributeValue(session_, object, &attribute, 1), CKR_OK);
    Bytes value(attribute.ulValueLen);
    attribute.pValue = value.data();
    EXPECT_EQ(f_->C_GetAttributeValue(session_, object, &attribute, 1), CKR_OK);
    return value;
  }

  CK_RV Login(const std::string& pin) const {
    return f_->C_Login(session_, CKU_USER,
                       reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(pin.data())),
                       pin.size());
  }

  // Signs |data| in one call; the signature, or empty with |rv| set.
  Bytes Sign(CK_OBJECT_HANDLE key, CK_MECHANISM mechanism, const Bytes& data,
             CK_RV* rv = nullptr) const {
    CK_RV result = f_->C_SignInit(session_, &mechanism, key);
    Bytes signature;
    if (result == CKR_OK) {
      CK_ULONG length = 0;
      result = f_->C_Sign(session_, const_cast<unsigned char*>(data.data()), data.size(), nullptr,
                          &length);
      if (result == CKR_OK) {
        signature.resize(length);
        result = f_->C_Sign(session_, const_cast<unsigned char*>(data.data()), data.size(),
                            signature.data(), &length);
        signature.resize(result == CKR_OK ? length : 0);
      }
    }
    if (rv != nullptr)
      *rv = result;
    else
      EXPECT_EQ(result, CKR_OK);
    return signature;
  }

 private:
  CK_FUNCTION_LIST* f_;
  CK_SLOT_ID slot_ = 0;
  CK_SESSION_HANDLE session_ = CK_INVALID_HANDLE;
};

}  // namespace x509auth_test
