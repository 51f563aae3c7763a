#include "LibrarySession.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "Formatting.h"
#include "PinPrompt.h"
#include "Report.h"
#include "ThumbprintArgument.h"

namespace x509auth_tool {
namespace {

// The C callbacks reach the one session of the process through these.
int g_threshold = X509_Auth_LogPriority_Error;
bool g_quiet = false;
LibrarySession::LogObserver g_observer;
const char* g_demoted_format = nullptr;

__attribute__((format(printf, 2, 0))) void OnLog(X509_Auth_LogPriority priority,
                                                 const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(&text[0], text.size() + 1, format, arguments);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (g_observer) g_observer(priority, text);
  if (g_demoted_format != nullptr && std::strcmp(format, g_demoted_format) == 0 &&
      priority > X509_Auth_LogPriority_Info)
    priority = X509_Auth_LogPriority_Info;
  if (g_quiet || priority < g_threshold) return;
  static const char* const names[] = {"debug", "info", "warning", "error"};
  std::fflush(stdout);
  std::fprintf(stderr, "[%s] %s\n", names[static_cast<unsigned>(priority) & 3u], text.c_str());
}

void OnMessage(const char* message, const char* title) {
  std::fflush(stdout);
  std::fprintf(stderr, "x509-auth: %s: %s\n", title != nullptr ? title : "",
               message != nullptr ? message : "");
}

}  // namespace

LibrarySession::LibrarySession(const GlobalOptions& options) : options_(options) {
  g_quiet = options.quiet;
  const int verbose = options.verbose > 3 ? 3 : options.verbose;
  g_threshold = X509_Auth_LogPriority_Error - verbose;
  PinPrompt::Configure(PromptSources{options.pin_env, options.password_env, options.pin_fd,
                                     options.password_fd});
}

LibrarySession::~LibrarySession() {
  if (!started_) return;
  if (array_ != nullptr) X509_Auth_Free(array_);
  X509_Auth_DeInit();
  g_observer = nullptr;
}

LibrarySession::Demotion::Demotion(const char* format) { g_demoted_format = format; }
LibrarySession::Demotion::~Demotion() { g_demoted_format = nullptr; }

void LibrarySession::SetLogObserver(LogObserver observer) { g_observer = std::move(observer); }

std::string LibrarySession::WithPromptNote(const std::string& message) {
  const std::string& note = PinPrompt::LastUnanswered();
  return note.empty() ? message : message + "; " + note;
}

bool LibrarySession::Start() {
  std::vector<const char*> dirs, home_dirs;
  for (const std::string& dir : options_.dirs) dirs.push_back(dir.c_str());
  for (const std::string& dir : options_.home_dirs) home_dirs.push_back(dir.c_str());
  // With no directory at all the tool looks where a user keeps them.
  if (dirs.empty() && home_dirs.empty()) home_dirs.push_back(".x509-auth");
  const X509_Auth_Settings settings{dirs.data(), dirs.size(), home_dirs.data(), home_dirs.size()};
  X509_Auth_Init(&settings,
                 X509_Auth_Callbacks{OnLog, PinPrompt::OnPinEntry, PinPrompt::OnFree, OnMessage});
  started_ = true;
  for (const std::string& path : options_.cas) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return Fail("cannot read the CA certificate " + path), false;
    const std::vector<unsigned char> data((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
    if (X509_Auth_AddAdditionalCertificateAuthorityToStore(data.data(), data.size()) != 1)
      return Fail("the library did not accept " + path +
                  " as a CA certificate (PEM or DER expected)"),
             false;
  }
  return true;
}

bool LibrarySession::Load() {
  if (loaded_) return true;
  uint64_t count = 0;
  if (!X509_Auth_LoadClientCertificates(&count, &array_)) {
    array_ = nullptr;
    return Fail("the certificate store could not be opened"), false;
  }
  loaded_ = true;
  for (uint64_t i = 0; i < count; ++i) records_.push_back(&array_[i]);
  return true;
}

const X509_Auth_Certificate* LibrarySession::Find(const std::string& argument) {
  const std::optional<std::string> digits = ThumbprintArgument::Normalise(argument);
  if (!digits) return Fail(ThumbprintArgument::Check(argument)), nullptr;
  if (!Load()) return nullptr;
  const ThumbprintArgument::Match match = ThumbprintArgument::Resolve(*digits, records_);
  if (match.record != nullptr) return match.record;
  const bool ambiguous = !match.candidates.empty();
  const auto& listed = ambiguous ? match.candidates : records_;
  if (ambiguous)
    Fail("the thumbprint prefix " + *digits + " is ambiguous: it matches " +
         std::to_string(match.candidates.size()) + " certificates");
  else
    Fail("no offered certificate has the thumbprint " + *digits +
         (records_.empty() ? " (no certificate is offered; try 'x509-auth doctor')"
                           : "; the offered ones are:"));
  for (const X509_Auth_Certificate* record : listed)
    FailDetail(ThumbprintHex(*record) + "  " + record->name);
  return nullptr;
}

}  // namespace x509auth_tool
