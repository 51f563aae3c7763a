#include "PinPrompt.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "Formatting.h"
#include "InterruptCleanup.h"
#include "p11-kit/pkcs11.h"

namespace x509auth_tool {
namespace {

PromptSources g_sources;
std::string g_last_unanswered;
std::string g_last_answered;
std::string g_last_token;

// A string whose characters are wiped when it goes.
struct Secret {
  std::string value;
  Secret() { value.reserve(1024); }
  ~Secret() {
    if (!value.empty()) OPENSSL_cleanse(&value[0], value.size());
  }
};
// Key-file passwords already given in this command, by file.
std::map<std::string, std::unique_ptr<Secret>> g_passwords;

// The record the library sees is the first member, so the release callback
// can find the whole answer again.
struct HeldAnswer {
  X509_Auth_PinEntryResult result{nullptr, 1};
  Secret secret;
};

// Reads up to a newline; false at end of input before any byte. The buffer
// is reserved up front so no reallocation leaves a copy behind.
bool ReadLine(int fd, std::string& line) {
  line.reserve(1024);
  bool got_any = false;
  char c;
  for (;;) {
    const ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return got_any;
    got_any = true;
    if (c == '\n') return true;
    if (line.size() < 1023) line.push_back(c);
  }
}

void Trim(std::string& line) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
}

enum class TerminalAnswer { k_answered, k_no_terminal, k_empty };

// Reads from the controlling terminal with echo off.
TerminalAnswer ReadFromTerminal(const std::string& question, std::string& answer) {
  const int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return TerminalAnswer::k_no_terminal;
  termios saved{};
  if (tcgetattr(fd, &saved) != 0) {
    close(fd);
    return TerminalAnswer::k_no_terminal;
  }
  (void)!write(fd, question.data(), question.size());
  termios quiet = saved;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  quiet.c_lflag |= ECHONL;
  InterruptCleanup::SetTerminal(fd, saved, quiet);
  tcsetattr(fd, TCSAFLUSH, &quiet);
  bool got = false;
  try {
    got = ReadLine(fd, answer);
  } catch (...) {
    tcsetattr(fd, TCSAFLUSH, &saved);
    InterruptCleanup::ClearTerminal();
    close(fd);
    throw;
  }
  tcsetattr(fd, TCSAFLUSH, &saved);
  InterruptCleanup::ClearTerminal();
  close(fd);
  Trim(answer);
  return got && !answer.empty() ? TerminalAnswer::k_answered : TerminalAnswer::k_empty;
}

// What follows |prefix| in |text|, or |text| when it does not start so.
std::string After(const std::string& text, const char* prefix) {
  const std::size_t length = std::strlen(prefix);
  return text.compare(0, length, prefix) == 0 ? text.substr(length) : text;
}

// The token's PIN flags, asked of the module the library already loaded
// and initialised (dlopen gives the same copy; it is not finalised here).
CK_FLAGS TokenFlags(const std::string& module, const std::string& label) {
  if (module.empty()) return 0;
  void* handle = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
  if (handle == nullptr) return 0;
  CK_FLAGS flags = 0;
  auto get_list = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
  CK_FUNCTION_LIST_PTR functions = nullptr;
  if (get_list != nullptr && get_list(&functions) == CKR_OK && functions != nullptr) {
    const CK_RV initialised = functions->C_Initialize(nullptr);
    if (initialised == CKR_OK || initialised == CKR_CRYPTOKI_ALREADY_INITIALIZED) {
      CK_ULONG count = 0;
      std::vector<CK_SLOT_ID> slots;
      if (functions->C_GetSlotList(CK_TRUE, nullptr, &count) == CKR_OK) {
        slots.resize(count);
        if (functions->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK) count = 0;
        slots.resize(count);
      }
      for (const CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO info{};
        if (functions->C_GetTokenInfo(slot, &info) != CKR_OK) continue;
        std::string name(reinterpret_cast<const char*>(info.label), sizeof info.label);
        while (!name.empty() && name.back() == ' ') name.pop_back();
        if (name == label) flags = info.flags;
      }
      if (initialised == CKR_OK) functions->C_Finalize(nullptr);
    }
  }
  dlclose(handle);
  return flags;
}

}  // namespace

void PinPrompt::Configure(const PromptSources& sources) { g_sources = sources; }

const std::string& PinPrompt::LastUnanswered() { return g_last_unanswered; }
const std::string& PinPrompt::LastAnswered() { return g_last_answered; }

std::string PinPrompt::TriesLeft() {
  const CK_FLAGS flags = TokenFlags(g_sources.module, g_last_token);
  if ((flags & CKF_USER_PIN_LOCKED) != 0) return "the PIN is now locked";
  if ((flags & CKF_USER_PIN_FINAL_TRY) != 0) return "one try left";
  if ((flags & CKF_USER_PIN_COUNT_LOW) != 0) return "few tries left";
  return "";
}

X509_Auth_PinEntryResult* PinPrompt::OnPinEntry(const char* title, const char* prompt) noexcept {
  // Inside the library's call: no exception may cross its C interface. No
  // answer (null) cancels the prompt.
  try {
    return Ask(title, prompt);
  } catch (...) {
    return nullptr;
  }
}

namespace {

// One prompt of the library, read for what it asks: a token's PIN or a key
// file's password, with the command-line sources for that kind.
struct Question {
  bool is_pin;
  // The token's label or the key file's path.
  std::string subject;
  const std::string& env;
  int fd;
  const char* env_option;
  const char* fd_option;
};

Question Understand(const char* title, const char* prompt) {
  // The library titles token logins "Enter pin" and key files "Enter
  // password", and asks "Enter pin for token: LABEL" and "Enter password
  // for: PATH".
  if (std::strcmp(title, "Enter pin") == 0)
    return {true,
            After(prompt, "Enter pin for token: "),
            g_sources.pin_env,
            g_sources.pin_fd,
            "--pin-env",
            "--pin-fd"};
  return {false,
          After(prompt, "Enter password for: "),
          g_sources.password_env,
          g_sources.password_fd,
          "--password-env",
          "--password-fd"};
}

// The answer from the environment, a descriptor or the terminal, in that
// order of choice; false with |why| when there is none.
bool ReadAnswer(const Question& question, std::string& value, std::string& why) {
  if (!question.env.empty()) {
    const char* from_env = std::getenv(question.env.c_str());
    if (from_env != nullptr) {
      value.assign(from_env);
      return true;
    }
    why = "the environment variable " + question.env + " (" + question.env_option + ") is not set";
    return false;
  }
  if (question.fd >= 0) {
    const bool answered = ReadLine(question.fd, value);
    Trim(value);
    if (!answered)
      why = std::string("nothing to read from ") + question.fd_option + " " +
            std::to_string(question.fd);
    return answered;
  }
  // The label and the path are anyone's text: shown escaped on the terminal.
  std::string asked = question.is_pin ? "PIN for the token \"" + Printable(question.subject) + "\""
                                      : "Password for the key file " + Printable(question.subject);
  if (question.is_pin)
    if (const std::string tries = PinPrompt::TriesLeft(); !tries.empty())
      asked += " (" + tries + ")";
  switch (ReadFromTerminal(asked + " (input hidden): ", value)) {
    case TerminalAnswer::k_answered: return true;
    case TerminalAnswer::k_empty: why = "nothing was entered"; break;
    case TerminalAnswer::k_no_terminal:
      why = std::string("there is no terminal to ask on; give ") + question.env_option +
            " VAR or " + question.fd_option + " N";
      break;
  }
  return false;
}

// Hands |held| to the library with |status| and its value; the library
// gives it back through OnFree.
X509_Auth_PinEntryResult* Hand(std::unique_ptr<HeldAnswer> held, int status) {
  held->result.status = status;
  held->result.value = held->secret.value.c_str();
  return &held.release()->result;
}

}  // namespace

X509_Auth_PinEntryResult* PinPrompt::Ask(const char* title, const char* prompt) {
  const Question question =
      Understand(title != nullptr ? title : "", prompt != nullptr ? prompt : "");
  if (question.is_pin) g_last_token = question.subject;
  auto held = std::make_unique<HeldAnswer>();
  std::string& value = held->secret.value;
  // A key file's password, once given, answers that file's later prompts.
  if (!question.is_pin) {
    const auto given = g_passwords.find(question.subject);
    if (given != g_passwords.end()) {
      value = given->second->value;
      return Hand(std::move(held), 0);
    }
  }
  std::string why;
  if (!ReadAnswer(question, value, why)) {
    const std::string what = question.is_pin ? "the PIN of the token \"" + question.subject + "\""
                                             : "the password of the key file " + question.subject;
    g_last_unanswered = "the prompt for " + what + " went unanswered: " + why;
    return Hand(std::move(held), 1);
  }
  g_last_answered = question.subject;
  if (!question.is_pin) {
    auto kept = std::make_unique<Secret>();
    kept->value = value;
    g_passwords[question.subject] = std::move(kept);
  }
  return Hand(std::move(held), 0);
}

void PinPrompt::OnFree(X509_Auth_PinEntryResult* result) noexcept {
  // |result| is the first member of a HeldAnswer made above.
  std::unique_ptr<HeldAnswer> held(reinterpret_cast<HeldAnswer*>(result));
}

}  // namespace x509auth_tool
