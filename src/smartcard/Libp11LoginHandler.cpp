#include "smartcard/Libp11LoginHandler.h"

#include <optional>
#include <string>

#include "base/PromptAnswer.h"
#include "base/SafeCallbacksWrapper.h"
#include "smartcard/FreshTokenErrors.h"
#include "smartcard/TokenWatch.h"

namespace quorvant::shared::x509 {

namespace {

constexpr const char* k_pin_title = "Enter pin";
constexpr const char* k_notice_caption = "Smartcard error";

}  // namespace

Libp11LoginHandler::~Libp11LoginHandler() { LogOutOfAllSlots(); }

int Libp11LoginHandler::LoginIfRequired(PKCS11_slot_st* slot) {
  if (!slot->token->loginRequired) return 0;

  // Checked before anything that may open a session: a card that cannot take
  // one is reported like a failed login check, and the user is not prompted.
  if (const int probe = ProbeSession(slot); probe != 0) return probe;
  int logged_in = 0;
  if (const int result = PKCS11_is_logged_in(slot, 0, &logged_in); result != 0) return result;
  if (logged_in != 0) return 0;

  // std::string from a null label throws std::logic_error: a token without a
  // label cannot be named in a prompt.
  const std::string prompt = "Enter pin for token: " + std::string(slot->token->label);

  const PromptAnswer answer(k_pin_title, prompt.c_str());
  const int code = answer.Received() ? answer.Status() : 1;
  if (answer.Received() && code == 0) return LogIn(slot, answer.Text());
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error, "Error getting login details: %i", code);
  return code;
}

int Libp11LoginHandler::LogIn(PKCS11_slot_st* slot, const char* pin) {
  // The card may have gone while the user typed; libp11 would then wait
  // forever in its session pool instead of failing the login.
  if (const int probe = ProbeSession(slot); probe != 0) return probe;
  std::optional<FreshTokenErrors> fresh;
  if (TokenWatch::Enabled()) fresh.emplace();
  const int login = PKCS11_login(slot, 0, pin);
  const CK_RV lost = login < 0 && fresh ? fresh->Loss() : CKR_OK;
  fresh.reset();
  if (login >= 0) {
    logged_in_slots_.insert(slot);
    return 0;
  }
  ReportFailedLogin(slot, lost);
  return login;
}

void Libp11LoginHandler::ReportFailedLogin(const PKCS11_slot_st* slot, CK_RV lost) const {
  const X509_Auth_MessageCallback message = SafeCallbacksWrapper::GetInstance().MessageCallback();
  // A card pulled while the user typed is no wrong PIN: with the token
  // watch on, the host is told what happened instead.
  if (lost != CKR_OK) {
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "Login failed: the token [%s] went away (CK_RV 0x%lx)",
                              slot->token->label, static_cast<unsigned long>(lost));
    const std::string notice =
        "The smart card was removed while logging in to: " + std::string(slot->token->label);
    if (message != nullptr) message(notice.c_str(), k_notice_caption);
    return;
  }
  SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                            "Login failed. Maybe the pin was incorrect.\n");
  const std::string notice = "Incorrect pin entered for: " + std::string(slot->token->label);
  // Text first, caption second: the reverse of the PIN prompt's order.
  if (message != nullptr) message(notice.c_str(), k_notice_caption);
  // Said beside the notice, which cannot tell a pulled card from a wrong
  // PIN, so that a program can tell the user which it was.
  if (presence_check_ && !presence_check_(slot))
    SafeCallbacksWrapper::Log(X509_Auth_LogPriority_Error,
                              "The token [%s] was removed while its PIN was entered.",
                              slot->token->label);
}

void Libp11LoginHandler::LogOutOfAllSlots() {
  // No probe here: libp11 logs out through the session it kept in its pool
  // since the login, so a card gone by now cannot make it wait.
  for (PKCS11_slot_st* slot : logged_in_slots_) PKCS11_logout(slot);
  logged_in_slots_.clear();
}

}  // namespace quorvant::shared::x509
