#include "FuzzHost.h"

#include <openssl/err.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string_view>

namespace x509auth_fuzz {

namespace {

PasswordAnswer current_answer = PasswordAnswer::k_right;
int prompt_count = 0;

// Every line is formatted, so a format that does not match its arguments
// shows up under the sanitizers; the text itself is dropped.
__attribute__((format(printf, 2, 0))) void Log(X509_Auth_LogPriority /*priority*/,
                                               const char* format, va_list arguments) {
  char line[4096];
  std::vsnprintf(line, sizeof line, format, arguments);
}

// The host's record, with the text owned next to it.
struct OwnedPinEntryResult {
  X509_Auth_PinEntryResult result;
  std::string text;
};

X509_Auth_PinEntryResult* PinEntry(const char* title, const char* prompt) {
  ++prompt_count;
  // The strings are read as a host would show them.
  if (std::strlen(title) + std::strlen(prompt) == 0) std::abort();
  if (current_answer == PasswordAnswer::k_null_result) return nullptr;
  auto owned = std::make_unique<OwnedPinEntryResult>();
  owned->result.status = 0;
  switch (current_answer) {
    case PasswordAnswer::k_right: owned->text = k_right_password; break;
    case PasswordAnswer::k_wrong: owned->text = "not-the-password"; break;
    case PasswordAnswer::k_cancelled: owned->result.status = 1; break;
    case PasswordAnswer::k_over_long: owned->text.assign(70000, 'p'); break;
    default: break;
  }
  owned->result.value =
      current_answer == PasswordAnswer::k_null_value ? nullptr : owned->text.c_str();
  return &owned.release()->result;
}

void FreePinEntryResult(X509_Auth_PinEntryResult* result) {
  // The record is the first member, so this is the address that was made;
  // ownership comes back from the host here.
  std::unique_ptr<OwnedPinEntryResult> owned(reinterpret_cast<OwnedPinEntryResult*>(result));
}

void Message(const char* message, const char* title) {
  if (message == nullptr || title == nullptr) std::abort();
}

}  // namespace

FuzzHost& FuzzHost::GetInstance() {
  static FuzzHost host;
  return host;
}

FuzzHost::FuzzHost() : base_(temp_ / "base"), work_(temp_ / "work") {
  const std::filesystem::path& work = work_;
  const std::filesystem::path home = temp_ / "home";
  const std::filesystem::path no_cas = temp_ / "no-cas";
  std::filesystem::create_directories(work);
  std::filesystem::create_directories(home);
  std::filesystem::create_directories(no_cas);
  std::filesystem::create_directories(base_ / "certs");
  std::filesystem::create_directories(base_ / "keys");
  // The real OpenSC module with no reader: the token source opens and is
  // empty, so the store goes on to the files.
  std::filesystem::create_symlink(OPENSC_MODULE_PATH, work / "opensc-pkcs11.so");
  setenv("HOME", home.c_str(), 1);
  // No system CAs: every input is judged on its own bytes, the same on
  // every machine, and the stores stay small enough for many runs a second.
  setenv("SSL_CERT_FILE", (no_cas / "none.pem").c_str(), 1);
  setenv("SSL_CERT_DIR", no_cas.c_str(), 1);
}

void FuzzHost::EmptyBase() const {
  for (const char* folder : {"certs", "keys"}) {
    for (const auto& entry : std::filesystem::directory_iterator(base_ / folder))
      std::filesystem::remove_all(entry.path());
  }
}

void FuzzHost::Init(PasswordAnswer answer) const {
  current_answer = answer;
  prompt_count = 0;
  // Errors the harness itself queued are not the library's to report.
  ERR_clear_error();
  const std::string base = base_.string();
  const char* directories[] = {base.c_str()};
  const X509_Auth_Settings settings{directories, 1, nullptr, 0};
  X509_Auth_Init(&settings, X509_Auth_Callbacks{Log, PinEntry, FreePinEntryResult, Message});
}

void FuzzHost::WarmUp() {
  const FuzzHost& host = GetInstance();
  const InWorkDirectory in_work_directory(host);
  host.Init(PasswordAnswer::k_right);
  std::uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  if (X509_Auth_LoadClientCertificates(&count, &certificates)) X509_Auth_Free(certificates);
}

int FuzzHost::PromptCount() { return prompt_count; }

FuzzHost::InWorkDirectory::InWorkDirectory(const FuzzHost& host)
    : previous_(std::filesystem::current_path()) {
  if (chdir(host.work_.c_str()) != 0) std::abort();
}

FuzzHost::InWorkDirectory::~InWorkDirectory() {
  if (chdir(previous_.c_str()) != 0) std::abort();
}

void WriteBytes(const std::filesystem::path& path, const std::uint8_t* bytes, std::size_t size) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  stream.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  if (!stream) std::abort();
}

std::vector<std::vector<std::uint8_t>> SplitParts(const std::uint8_t* data, std::size_t size,
                                                  std::size_t max_parts) {
  const std::string_view separator(k_part_separator);
  const std::string_view all(reinterpret_cast<const char*>(data), size);
  std::vector<std::vector<std::uint8_t>> parts;
  std::size_t start = 0;
  while (parts.size() + 1 < max_parts) {
    const std::size_t at = all.find(separator, start);
    if (at == std::string_view::npos) break;
    parts.emplace_back(data + start, data + at);
    start = at + separator.size();
  }
  parts.emplace_back(data + start, data + size);
  return parts;
}

}  // namespace x509auth_fuzz
