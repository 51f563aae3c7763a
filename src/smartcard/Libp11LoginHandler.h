#pragma once
#include <libp11.h>
#include <p11-kit/pkcs11.h>

#include <functional>
#include <set>

namespace quorvant::shared::x509 {

// Logs the user in to a token when a key operation needs it, one PIN prompt
// per call, and remembers every slot it logged in to so that all of them can
// be logged out together. Used by one thread at a time, like its context.
class Libp11LoginHandler {
 public:
  // Returns 0 when a session can be opened on the slot, else a negative
  // code. libp11 hangs when its own session open fails, so the login, which
  // opens one, is preceded by the probe.
  using SessionProbe = std::function<int(const PKCS11_slot_st*)>;
  // False when the slot's token is gone (a card pulled while its PIN was
  // typed, which the module reports as a failed login).
  using PresenceCheck = std::function<bool(const PKCS11_slot_st*)>;

  Libp11LoginHandler() = default;
  explicit Libp11LoginHandler(SessionProbe session_probe, PresenceCheck presence_check = nullptr)
      : session_probe_(std::move(session_probe)), presence_check_(std::move(presence_check)) {}
  ~Libp11LoginHandler();
  Libp11LoginHandler(const Libp11LoginHandler&) = delete;
  Libp11LoginHandler& operator=(const Libp11LoginHandler&) = delete;

  // LoginIfRequired returns 0 when no login was needed or it succeeded, else
  // a failure code (1, the host's non-zero status, or a negative login
  // result; also the probe's negative code when no session can be opened).
  int LoginIfRequired(PKCS11_slot_st* slot);
  // Logs out of every remembered slot once, in pointer order, and forgets
  // them.
  void LogOutOfAllSlots();
  // Forgets the remembered slots without logging out (the module is gone).
  void ForgetSlots() { logged_in_slots_.clear(); }

  const std::set<PKCS11_slot_st*>& LoggedInSlots() const { return logged_in_slots_; }

 private:
  // Logs in to |slot| with the PIN the host gave; 0, else the failure's
  // code after the lines and notice that tell the host what happened.
  int LogIn(PKCS11_slot_st* slot, const char* pin);
  // |lost|: the removal result libp11 recorded during the login, if any.
  void ReportFailedLogin(const PKCS11_slot_st* slot, CK_RV lost) const;
  int ProbeSession(const PKCS11_slot_st* slot) const {
    return session_probe_ ? session_probe_(slot) : 0;
  }

  SessionProbe session_probe_;
  PresenceCheck presence_check_;
  std::set<PKCS11_slot_st*> logged_in_slots_;
};

}  // namespace quorvant::shared::x509
