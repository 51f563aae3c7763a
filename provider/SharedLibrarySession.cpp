#include "SharedLibrarySession.h"

#include <link.h>
#include <openssl/crypto.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "x509_auth.h"
#include "x509auth/LeftOutCertificates.h"
#include "x509auth/LibraryLines.h"

namespace x509auth_provider {
namespace {

// The request being served, read by the library's callbacks. Written and read
// only under the session lock, which every call into the library holds.
const Request* g_current = nullptr;
// Used for the lines the library writes while no request is active
// (initialisation and teardown).
int g_idle_threshold = X509_Auth_LogPriority_Error;
// Set once the library has been deinitialised for good at process exit.
bool g_finished = false;
SharedLibrarySession* g_live = nullptr;
// Counts the library's initialisations and ends; keys opened in one are
// never closed in another.
std::uint64_t g_generation = 0;

// How many shared objects the process has loaded so far (the dynamic
// linker's own count, which never goes down).
unsigned long long SharedObjectLoads() {
  unsigned long long loads = 0;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t size, void* data) {
        if (size >= offsetof(dl_phdr_info, dlpi_adds) + sizeof(info->dlpi_adds))
          *static_cast<unsigned long long*>(data) = info->dlpi_adds;
        return 1;  // the first object carries the count
      },
      &loads);
  return loads;
}

int Threshold() {
  return g_current != nullptr ? g_current->settings->log_threshold : g_idle_threshold;
}

// Lines that explain a failure: the library's errors, and OpenSSL's own
// reasons, which it hands on as one "%s" line at priority 1.
bool IsEvidence(X509_Auth_LogPriority priority, const char* format) {
  return priority == X509_Auth_LogPriority_Error ||
         (priority == X509_Auth_LogPriority_Info && std::strcmp(format, "%s") == 0);
}

void Log(X509_Auth_LogPriority logged, const char* format, va_list arguments) {
  va_list followed;
  va_copy(followed, arguments);
  x509auth_common::LeftOutCertificates::Observe(format, followed);
  va_end(followed);
  // The library's routine step trace counts as information, not a warning.
  const auto priority = static_cast<X509_Auth_LogPriority>(
      x509auth_common::ShownPriority(static_cast<int>(logged), format));
  const bool to_stderr = static_cast<int>(priority) >= Threshold();
  const bool kept = g_current != nullptr && IsEvidence(priority, format);
  if (!to_stderr && !kept) return;
  char line[1024];
  std::vsnprintf(line, sizeof(line), format, arguments);
  if (kept) g_current->evidence.emplace_back(line);
  if (to_stderr) std::fprintf(stderr, "x509auth: %s\n", line);
}

void Message(const char* message, const char* title) {
  if (g_current != nullptr) g_current->evidence.push_back(std::string(title) + ": " + message);
  if (X509_Auth_LogPriority_Error < Threshold()) return;
  std::fprintf(stderr, "x509auth: %s: %s\n", title, message);
}

// The record the library reads, followed by the secret it points to; wiped
// and released by FreePinEntry as soon as the library is done with it.
struct PinAnswer {
  X509_Auth_PinEntryResult result{nullptr, 1};
  char value[1025] = {};
};

X509_Auth_PinEntryResult* PinEntry(const char* /*title*/, const char* prompt) {
  auto answer = std::make_unique<PinAnswer>();
  const Request* request = g_current;
  long length = -1;
  if (request != nullptr && request->passphrase != nullptr)
    length = request->passphrase->Ask(prompt != nullptr ? prompt : "", answer->value,
                                      sizeof(answer->value) - 1);
  if (length < 0) {
    if (request != nullptr) request->prompt_refused = true;
    answer->result.status = 1;
  } else {
    answer->value[length] = '\0';
    answer->result.value = answer->value;
    answer->result.status = 0;
  }
  // Handed to the library as its first member; FreePinEntry takes it back.
  return &answer.release()->result;
}

void FreePinEntry(X509_Auth_PinEntryResult* result) {
  std::unique_ptr<PinAnswer> answer(reinterpret_cast<PinAnswer*>(result));
  OPENSSL_cleanse(answer->value, sizeof(answer->value));
}

}  // namespace

ProcessLocks::Mutex& SharedLibrarySession::Mutex() { return ProcessLocks::Library(); }

std::shared_ptr<SharedLibrarySession> SharedLibrarySession::Acquire(
    const ProviderSettings& settings) {
  static std::weak_ptr<SharedLibrarySession> instance;
  std::lock_guard<ProcessLocks::Mutex> acquire_lock(ProcessLocks::Acquiring());
  if (std::shared_ptr<SharedLibrarySession> session = instance.lock()) return session;
  std::shared_ptr<SharedLibrarySession> session(new SharedLibrarySession());
  {
    std::lock_guard<ProcessLocks::Mutex> lock(Mutex());
    const Request request{&settings, nullptr};
    const Scope scope(request);
    g_idle_threshold = settings.log_threshold;
    // Checked when the settings were read; the library loads exactly this
    // module (or none) and never looks in the working directory.
    X509_Auth_SetPkcs11Module(settings.module.c_str());
    X509_Auth_Init(nullptr, X509_Auth_Callbacks{Log, PinEntry, FreePinEntry, Message});
    // A program holding the provider lives while cards come and go.
    X509_Auth_SetTokenWatch(1);
    ++g_generation;
    g_finished = false;
    g_live = session.get();
  }
  // A provider loaded from openssl.cnf is torn down by OPENSSL_cleanup, after
  // the library's own static objects are gone: deinitialise before them (this
  // handler is registered after they were made).
  static bool registered = false;
  if (!registered) {
    registered = true;
    std::atexit(DeinitialiseAtExit);
  }
  instance = session;
  return session;
}

void SharedLibrarySession::DeinitialiseAtExit() {
  std::lock_guard<ProcessLocks::Mutex> lock(Mutex());
  if (g_live != nullptr && !g_finished) {
    X509_Auth_DeInit();
    ++g_generation;
    g_finished = true;
  }
}

SharedLibrarySession::ExitHandlerAfterLoad::ExitHandlerAfterLoad()
    : loads_before_(SharedObjectLoads()) {}

SharedLibrarySession::ExitHandlerAfterLoad::~ExitHandlerAfterLoad() {
  // One more call of an idempotent handler per request that loaded something:
  // in practice once per module load.
  if (SharedObjectLoads() != loads_before_) std::atexit(DeinitialiseAtExit);
}

SharedLibrarySession::~SharedLibrarySession() {
  std::lock_guard<ProcessLocks::Mutex> lock(Mutex());
  if (!g_finished) X509_Auth_DeInit();
  ++g_generation;
  g_finished = true;
  g_live = nullptr;
}

std::uint64_t SharedLibrarySession::Generation() { return g_generation; }

void SharedLibrarySession::CloseKey(X509_Auth_KeyHandle key, std::uint64_t generation) {
  std::lock_guard<ProcessLocks::Mutex> lock(Mutex());
  if (g_live != nullptr && !g_finished && generation == g_generation) X509_Auth_CloseKey(key);
}

SharedLibrarySession::Scope::Scope(const Request& request) {
  const ProviderSettings& settings = *request.settings;
  std::vector<const char*> dirs, home_dirs;
  for (const std::string& dir : settings.dirs) dirs.push_back(dir.c_str());
  for (const std::string& dir : settings.home_dirs) home_dirs.push_back(dir.c_str());
  const X509_Auth_Settings record{dirs.data(), dirs.size(), home_dirs.data(), home_dirs.size()};
  X509_Auth_PostInitUpdateSettings(&record);
  request.evidence.clear();
  g_current = &request;
}

SharedLibrarySession::Scope::~Scope() {
  // What the library queued (it reads a DER key by trying PEM first, and
  // libp11 queues what it has already handled) goes with |errors_|: the
  // caller reports failures with the library's own lines.
  g_current = nullptr;
}

}  // namespace x509auth_provider
