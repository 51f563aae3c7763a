#include "PinPrompt.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "InterruptCleanup.h"

namespace x509auth_tool {
namespace {

PromptSources g_sources;
std::string g_last_unanswered;

// The record the library sees is the first member, so the release callback
// can find the whole answer again.
struct HeldAnswer {
  X509_Auth_PinEntryResult result{nullptr, 1};
  std::string value;
  ~HeldAnswer() {
    if (!value.empty()) OPENSSL_cleanse(&value[0], value.size());
  }
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

// Reads from the controlling terminal with echo off; false when there is no
// terminal or nothing was entered.
bool ReadFromTerminal(const char* title, const char* prompt, std::string& answer) {
  const int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;
  termios saved{};
  if (tcgetattr(fd, &saved) != 0) {
    close(fd);
    return false;
  }
  const std::string question = std::string(title) + "\n" + prompt + " (input hidden): ";
  (void)!write(fd, question.data(), question.size());
  termios quiet = saved;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  quiet.c_lflag |= ECHONL;
  InterruptCleanup::SetTerminal(fd, saved);
  tcsetattr(fd, TCSAFLUSH, &quiet);
  const bool got = ReadLine(fd, answer);
  tcsetattr(fd, TCSAFLUSH, &saved);
  InterruptCleanup::ClearTerminal();
  close(fd);
  Trim(answer);
  return got && !answer.empty();
}

}  // namespace

void PinPrompt::Configure(const PromptSources& sources) { g_sources = sources; }

const std::string& PinPrompt::LastUnanswered() { return g_last_unanswered; }

X509_Auth_PinEntryResult* PinPrompt::OnPinEntry(const char* title, const char* prompt) {
  title = title != nullptr ? title : "";
  prompt = prompt != nullptr ? prompt : "";
  // The library titles token logins "Enter pin" and key files "Enter password".
  const bool is_pin = std::strcmp(title, "Enter pin") == 0;
  const std::string& env = is_pin ? g_sources.pin_env : g_sources.password_env;
  const int fd = is_pin ? g_sources.pin_fd : g_sources.password_fd;
  const char* env_option = is_pin ? "--pin-env" : "--password-env";
  const char* fd_option = is_pin ? "--pin-fd" : "--password-fd";

  auto held = std::make_unique<HeldAnswer>();
  std::string why;
  bool answered = false;
  if (!env.empty()) {
    const char* value = std::getenv(env.c_str());
    answered = value != nullptr;
    if (answered)
      held->value.assign(value);
    else
      why = "the environment variable " + env + " (" + env_option + ") is not set";
  } else if (fd >= 0) {
    answered = ReadLine(fd, held->value);
    Trim(held->value);
    if (!answered) why = std::string("nothing to read from ") + fd_option + " " + std::to_string(fd);
  } else {
    answered = ReadFromTerminal(title, prompt, held->value);
    if (!answered)
      why = std::string("no terminal to ask on and no ") + env_option + " or " + fd_option +
            " given, or nothing was entered";
  }
  if (!answered) {
    g_last_unanswered = std::string("the prompt \"") + title + ": " + prompt +
                        "\" went unanswered: " + why;
    held->result.status = 1;
  } else {
    held->result.status = 0;
  }
  held->result.value = held->value.c_str();
  return &held.release()->result;
}

void PinPrompt::OnFree(X509_Auth_PinEntryResult* result) {
  // |result| is the first member of a HeldAnswer made above.
  std::unique_ptr<HeldAnswer> held(reinterpret_cast<HeldAnswer*>(result));
}

}  // namespace x509auth_tool
