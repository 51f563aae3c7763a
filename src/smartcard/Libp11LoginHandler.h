#pragma once
#include <libp11.h>

#include <set>

namespace quorvant::shared::x509 {

// Logs the user in to a token when a key operation needs it, one PIN prompt
// per call, and remembers every slot it logged in to so that all of them can
// be logged out together. Used by one thread at a time, like its context.
class Libp11LoginHandler {
 public:
  Libp11LoginHandler() = default;
  ~Libp11LoginHandler();
  Libp11LoginHandler(const Libp11LoginHandler&) = delete;
  Libp11LoginHandler& operator=(const Libp11LoginHandler&) = delete;

  // LoginIfRequired returns 0 when no login was needed or it succeeded, else
  // a failure code (1, the host's non-zero status, or a negative login
  // result).
  int LoginIfRequired(PKCS11_slot_st* slot);
  // Logs out of every remembered slot once, in pointer order, and forgets
  // them.
  void LogOutOfAllSlots();

  const std::set<PKCS11_slot_st*>& LoggedInSlots() const { return logged_in_slots_; }

 private:
  std::set<PKCS11_slot_st*> logged_in_slots_;
};

}  // namespace quorvant::shared::x509
