#include "LibraryLink.h"

#include <dlfcn.h>
#include <openssl/crypto.h>
#include <openssl/x509.h>
#include <stdlib.h>

#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "Log.h"
#include "OpenSslPtr.h"
#include "x509auth/LeftOutCertificates.h"
#include "x509auth/LibraryLines.h"
#include "x509auth/RegularFile.h"

namespace x509auth_pkcs11 {
namespace {

// The call being served; read by the library's callbacks, which run only
// inside calls made under the module's lock.
const Pin* g_pin = nullptr;
bool g_pin_for_tokens = false;
PromptRecord* g_record = nullptr;

// The title the library gives a key file's password prompt; a token's PIN
// prompts (its login and libp11's own) are titled "Enter pin".
constexpr const char* k_key_file_title = "Enter password";

void LibraryLog(X509_Auth_LogPriority priority, const char* format, va_list arguments) {
  va_list followed;
  va_copy(followed, arguments);
  x509auth_common::LeftOutCertificates::Observe(format, followed);
  va_end(followed);
  LogLineV(
      static_cast<LogLevel>(x509auth_common::ShownPriority(static_cast<int>(priority), format)),
      format, arguments);
}

void LibraryMessage(const char* message, const char* title) {
  LogLine(LogLevel::k_error, "%s: %s", title != nullptr ? title : "",
          message != nullptr ? message : "");
}

// The record the library reads, followed by a copy of the PIN; wiped and
// released by FreeAnswer as soon as the library is done with it.
struct Answer {
  X509_Auth_PinEntryResult result{nullptr, 1};
  char* value = nullptr;
  std::size_t size = 0;
};

// Called from inside the library, so it lets no exception out: without
// memory for the answer the prompt gets none, as a cancelled one.
X509_Auth_PinEntryResult* PinEntry(const char* title, const char* prompt) noexcept {
  if (g_record != nullptr) ++g_record->asked;
  std::unique_ptr<Answer> answer;
  try {
    answer = std::make_unique<Answer>();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  const bool key_file = title != nullptr && std::strcmp(title, k_key_file_title) == 0;
  const bool have_pin = g_pin != nullptr && g_pin->Present();
  if (have_pin && !key_file && !g_pin_for_tokens) {
    if (g_record != nullptr) ++g_record->withheld;
    LogLine(LogLevel::k_warning,
            "%s: not answered, the login PIN is a key file's password and never goes to a token",
            prompt != nullptr ? prompt : "");
  } else if (have_pin) {
    answer->size = std::strlen(g_pin->Value()) + 1;
    answer->value = static_cast<char*>(OPENSSL_secure_zalloc(answer->size));
    if (answer->value != nullptr) {
      std::memcpy(answer->value, g_pin->Value(), answer->size);
      answer->result.value = answer->value;
      answer->result.status = 0;
      if (g_record != nullptr) ++g_record->answered;
    }
  }
  // Handed to the library as its first member; FreeAnswer takes it back.
  return &answer.release()->result;
}

void FreeAnswer(X509_Auth_PinEntryResult* result) {
  std::unique_ptr<Answer> answer(reinterpret_cast<Answer*>(result));
  if (answer->value != nullptr) OPENSSL_secure_clear_free(answer->value, answer->size);
}

std::string RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : std::string();
}

std::string BaseName(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool IsP11KitProxy(const std::string& path) {
  const std::string name = BaseName(path);
  return name.rfind("p11-kit-proxy", 0) == 0 || name.rfind("p11-kit-client", 0) == 0;
}

// Adds every certificate of a PEM file (one or many) or a DER file as a CA
// the library builds chains with. A FIFO, a device or a huge file named
// there is skipped: reading it would block C_Initialize or fill the memory.
void AddCaFile(const std::string& file) {
  std::vector<unsigned char> content;
  std::string reason;
  if (!x509auth_common::RegularFile::ReadFile(file, content, reason)) {
    LogLine(LogLevel::k_error, "CA file %s skipped: %s", file.c_str(), reason.c_str());
    return;
  }
  const std::string bytes(content.begin(), content.end());
  int added = 0;
  if (bytes.find("-----BEGIN CERTIFICATE-----") != std::string::npos) {
    std::size_t at = 0;
    const std::string end_marker = "-----END CERTIFICATE-----";
    while ((at = bytes.find("-----BEGIN CERTIFICATE-----", at)) != std::string::npos) {
      const std::size_t end = bytes.find(end_marker, at);
      if (end == std::string::npos) break;
      const std::string pem = bytes.substr(at, end + end_marker.size() - at) + "\n";
      added += X509_Auth_AddAdditionalCertificateAuthorityToStore(
          reinterpret_cast<const unsigned char*>(pem.data()), pem.size());
      at = end;
    }
  } else {
    added = X509_Auth_AddAdditionalCertificateAuthorityToStore(
        reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  }
  if (added == 0)
    LogLine(LogLevel::k_error, "CA file %s holds no certificate the library took", file.c_str());
  else
    LogLine(LogLevel::k_info, "CA file %s: %d certificate(s) added", file.c_str(), added);
}

}  // namespace

LibraryLink::PromptScope::PromptScope(const Pin* pin, bool pin_for_tokens, PromptRecord& record) {
  g_pin = pin;
  g_pin_for_tokens = pin_for_tokens;
  g_record = &record;
}

LibraryLink::PromptScope::~PromptScope() {
  g_pin = nullptr;
  g_pin_for_tokens = false;
  g_record = nullptr;
}

std::string LibraryLink::ChooseTokenModule(const ModuleSettings& settings) {
  if (!settings.token_certificates || settings.module.empty()) return "";
  const std::string& path = settings.module;
  if (path[0] != '/') {
    LogLine(LogLevel::k_error, "module %s: not an absolute path; token certificates are off",
            path.c_str());
    return "";
  }
  const std::string resolved = RealPath(path);
  if (resolved.empty()) {
    LogLine(LogLevel::k_error, "module %s cannot be found; token certificates are off",
            path.c_str());
    return "";
  }
  Dl_info self{};
  std::string self_path;
  if (dladdr(reinterpret_cast<void*>(&LibraryLink::ChooseTokenModule), &self) != 0 &&
      self.dli_fname != nullptr)
    self_path = RealPath(self.dli_fname);
  if (!self_path.empty() && resolved == self_path) {
    LogLine(LogLevel::k_error,
            "module %s is this module itself; refusing to load it, token certificates are off",
            path.c_str());
    return "";
  }
  if (IsP11KitProxy(path) || IsP11KitProxy(resolved)) {
    LogLine(LogLevel::k_error,
            "module %s is p11-kit's proxy, which may load this module again; refusing it, "
            "token certificates are off",
            path.c_str());
    return "";
  }
  return resolved;
}

bool LibraryLink::Start(const ModuleSettings& settings, std::string& failure) {
  // The module carries its own copy of the library, so its extensions are
  // always there; |failure| stays for a start that can fail.
  (void)failure;
  sign_hash_pss_ = &X509_Auth_SignHashPss;

  std::vector<const char*> dirs, home_dirs;
  for (const std::string& dir : settings.dirs) dirs.push_back(dir.c_str());
  for (const std::string& dir : settings.home_dirs) home_dirs.push_back(dir.c_str());
  const X509_Auth_Settings record{dirs.data(), dirs.size(), home_dirs.data(), home_dirs.size()};
  X509_Auth_Init(&record, X509_Auth_Callbacks{LibraryLog, PinEntry, FreeAnswer, LibraryMessage});
  started_ = true;
  // Browsers keep the module loaded for their whole life: its token
  // certificates come and go with the cards.
  X509_Auth_SetTokenWatch(1);
  // Never null: null would bring back the working-directory lookup.
  const std::string module = ChooseTokenModule(settings);
  if (X509_Auth_SetPkcs11Module(module.c_str()) != X509_Auth_ResultCode_Success) {
    LogLine(LogLevel::k_error, "the library refused module %s; token certificates are off",
            module.c_str());
    X509_Auth_SetPkcs11Module("");
  }
  for (const std::string& file : settings.ca_files) AddCaFile(file);
  return true;
}

void LibraryLink::Stop() {
  if (!started_) return;
  X509_Auth_DeInit();
  started_ = false;
}

}  // namespace x509auth_pkcs11
