#pragma once
#include <libp11.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "api/OpenSslPtr.h"
#include "smartcard/Libp11LoginHandler.h"

namespace quorvant::shared::x509 {

// The process-wide gateway to smart cards over libp11. At most one instance
// lives at a time; the class holds it only weakly, so the module, its slots
// and every login are torn down when the last owner lets go. Its operations
// take no lock: one thread at a time.
class Libp11Context {
 public:
  // A certificate on a token and the slot holding it. Both point into
  // libp11's arrays, valid only while the context that produced them lives:
  // whoever keeps one also keeps a share of the context.
  struct Libp11CertAndSlot {
    PKCS11_CERT* cert;
    PKCS11_SLOT* slot;
  };

  // The module file looked for in the working directory.
  static constexpr const char* k_module_file_name = "./opensc-pkcs11.so";

  // GetInstance returns the live instance, or a new uninitialised one when
  // none lives. It may return an empty pointer if the instance dies while
  // being taken.
  static std::shared_ptr<Libp11Context> GetInstance();

  ~Libp11Context();
  Libp11Context(const Libp11Context&) = delete;
  Libp11Context& operator=(const Libp11Context&) = delete;

  // Loads the module, installs the PIN UI method and enumerates the slots.
  void InitialiseContextAndSlots();
  // Appends every certificate of every token to |certs|. Returns 0, also
  // when there are no slots or tokens, and -1 when no libp11 context exists.
  int GetCerts(std::vector<Libp11CertAndSlot>& certs);
  // Returns 0 when no login was needed or it succeeded, else the login
  // handler's code.
  int LogInToSlotIfRequired(PKCS11_slot_st* slot);

  // The OpenSSL UI writer through which libp11 asks the host for a PIN.
  static int PinEntryUiWriter(UI* ui, UI_STRING* uis);

  // The working directory with its first "bin" turned into "lib", if it
  // holds one.
  static std::optional<std::string> LibraryDirectoryFromWorkingDirectory();

  // Read-only views for diagnostics and tests.
  bool IsInitialised() const { return pkcs11_ctx_ != nullptr; }
  bool IsModuleLoaded() const { return module_loaded_; }
  unsigned int SlotCount() const { return slot_count_; }
  const Libp11LoginHandler& LoginHandler() const { return login_handler_; }

 private:
  Libp11Context() = default;

  static std::weak_ptr<Libp11Context> instance_;
  static std::mutex instance_mutex_;

  Libp11LoginHandler login_handler_;
  UiMethodPtr ui_method_;
  // Released by hand in the destructor: slots, then the module, then the
  // context, an order a single deleter cannot express.
  PKCS11_CTX* pkcs11_ctx_ = nullptr;
  PKCS11_SLOT* slots_ = nullptr;
  unsigned int slot_count_ = 0;
  bool module_loaded_ = false;
};

}  // namespace quorvant::shared::x509
