#include "CommandLibrarySession.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "Evidence.h"
#include "Formatting.h"
#include "OfferingReport.h"
#include "PinPrompt.h"
#include "Report.h"
#include "ThumbprintArgument.h"
#include "x509auth/LibraryLines.h"
#include "x509auth/RegularFile.h"

namespace x509auth_tool {
namespace {

// The callbacks run inside the library's calls: an exception (no memory
// for one more line) must not cross its C interface, where it would end the
// process with std::terminate. A line that cannot be kept is dropped.
__attribute__((format(printf, 2, 0))) void OnLog(X509_Auth_LogPriority priority, const char* format,
                                                 va_list arguments) noexcept {
  try {
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(&text[0], text.size() + 1, format, arguments);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    // The library's routine step trace is shown as what it is, not as a
    // warning (-v).
    const auto shown = static_cast<X509_Auth_LogPriority>(
        x509auth_common::ShownPriority(static_cast<int>(priority), format));
    Evidence::AddLog(shown, format, text);
  } catch (...) {
  }
}

void OnMessage(const char* message, const char* title) noexcept {
  try {
    Evidence::AddNotice(title != nullptr ? title : "", message != nullptr ? message : "");
  } catch (...) {
  }
}

}  // namespace

CommandLibrarySession::CommandLibrarySession(const GlobalOptions& options) : options_(options) {
  Evidence::Configure(options.verbose > 0, options.quiet);
  PinPrompt::Configure(PromptSources{options.pin_env, options.password_env, options.pin_fd,
                                     options.password_fd, options.module_path});
}

CommandLibrarySession::~CommandLibrarySession() {
  if (!started_) return;
  // The records are the library's: handed back before it ends.
  array_.reset();
  X509_Auth_DeInit();
}

std::string CommandLibrarySession::WithPromptNote(const std::string& message) {
  const std::string& note = PinPrompt::LastUnanswered();
  return note.empty() ? message : message + "; " + note;
}

bool CommandLibrarySession::CardRemovedDuringLogin() {
  return Evidence::StepHas("Login failed: the token [%s] went away (CK_RV 0x%lx)") ||
         Evidence::StepHas("The token [%s] was removed while its PIN was entered.");
}

std::string CommandLibrarySession::KeyFailure(const std::string& what,
                                              const X509_Auth_Result& result) {
  // The library says a wrong password as a key file it cannot parse after
  // the prompt was answered, and a wrong PIN as its login notice.
  const std::string& answered = PinPrompt::LastAnswered();
  // A card pulled during the prompt fails the login like a wrong PIN; the
  // library's line says so (the watch's when libp11 saw the card go, the
  // other when only the reader knows).
  // With the token watch the library then looks again, and finds the card's
  // certificate gone: code 3, not 4.
  if (result.code != X509_Auth_ResultCode_Success && CardRemovedDuringLogin())
    return what + " failed: the card \"" + answered + "\" was removed while its PIN was entered";
  if (result.code == X509_Auth_ResultCode_KeyOpenFailed && !answered.empty() &&
      Evidence::StepHas("Failed to parse private key file [%s]"))
    return what + " failed: wrong password for the key file " + answered;
  if (result.code == X509_Auth_ResultCode_KeyOpenFailed &&
      Evidence::StepHas("Incorrect pin entered for: ")) {
    std::string line = what + " failed: wrong PIN for the token \"" + answered + "\"";
    const std::string tries = PinPrompt::TriesLeft();
    if (!tries.empty()) line += " (" + tries + ")";
    return line;
  }
  return WithPromptNote(what + " failed: result code " + std::to_string(result.code) + " (" +
                        ResultCodeMeaning(result.code) + "), detail " +
                        std::to_string(result.detail));
}

X509_Auth_Callbacks CommandLibrarySession::Callbacks() {
  return X509_Auth_Callbacks{OnLog, PinPrompt::OnPinEntry, PinPrompt::OnFree, OnMessage};
}

X509_Auth_Settings CommandLibrarySession::Settings() {
  dirs_.clear();
  home_dirs_.clear();
  for (const std::string& dir : options_.dirs) dirs_.push_back(dir.c_str());
  for (const std::string& dir : options_.home_dirs) home_dirs_.push_back(dir.c_str());
  // With no directory at all the tool looks where a user keeps them.
  if (dirs_.empty() && home_dirs_.empty()) home_dirs_.push_back(".x509-auth");
  return X509_Auth_Settings{dirs_.data(), dirs_.size(), home_dirs_.data(), home_dirs_.size()};
}

std::optional<std::vector<unsigned char>> CommandLibrarySession::ReadCaFile(
    const std::string& path) {
  // Never blocking on a FIFO, never reading a device or a huge file.
  std::vector<unsigned char> bytes;
  std::string reason;
  if (!x509auth_common::RegularFile::ReadFile(path, bytes, reason))
    return FailPlain("cannot read the CA certificate " + path + ": " + reason), std::nullopt;
  return bytes;
}

bool CommandLibrarySession::Start() {
  Evidence::BeginStep();
  // Chosen before the first request loads a module; "" is no module at all.
  if (X509_Auth_SetPkcs11Module(options_.module_path.c_str()) != X509_Auth_ResultCode_Success)
    return Fail("the library refused the PKCS#11 module " + options_.module_path), false;
  const X509_Auth_Settings settings = Settings();
  X509_Auth_Init(&settings, Callbacks());
  started_ = true;
  // A session can outlive a card (the tls command, a PIN typed slowly):
  // every request looks at the tokens as they are.
  X509_Auth_SetTokenWatch(1);
  for (const std::string& path : options_.cas) {
    const std::optional<std::vector<unsigned char>> data = ReadCaFile(path);
    if (!data) return false;
    Evidence::BeginStep();
    if (X509_Auth_AddAdditionalCertificateAuthorityToStore(data->data(), data->size()) != 1)
      return Fail("the library did not accept " + path +
                  " as a CA certificate (PEM or DER expected)"),
             false;
  }
  return true;
}

bool CommandLibrarySession::Load() {
  if (loaded_) return true;
  uint64_t count = 0;
  Evidence::BeginStep();
  if (!X509_Auth_LoadClientCertificates(&count, x509auth_common::Receive(array_)))
    return Fail("the certificate store could not be opened"), false;
  loaded_ = true;
  for (uint64_t i = 0; i < count; ++i) records_.push_back(&array_.get()[i]);
  return true;
}

const X509_Auth_Certificate* CommandLibrarySession::Find(const std::string& argument) {
  const std::optional<std::string> digits = ThumbprintArgument::Normalise(argument);
  if (!digits) return FailPlain(ThumbprintArgument::Check(argument)), nullptr;
  if (!Load()) return nullptr;
  const ThumbprintArgument::Match match = ThumbprintArgument::Resolve(*digits, records_);
  if (match.record != nullptr) return match.record;
  const bool ambiguous = !match.candidates.empty();
  if (ambiguous) {
    FailPlain("the thumbprint prefix " + *digits + " is ambiguous: it matches " +
              std::to_string(match.candidates.size()) + " certificates");
    for (const X509_Auth_Certificate* record : match.candidates)
      FailDetail(ThumbprintHex(*record) + "  " + record->name);
    return nullptr;
  }
  // A certificate that is there but not offered is named, with the reason.
  const std::optional<std::string> why = OfferingReport::WhyNotOffered(options_, *digits);
  if (why) return FailPlain(*why), nullptr;
  FailPlain("no offered certificate has the thumbprint " + *digits +
            (records_.empty() ? " (no certificate is offered; try 'x509-auth doctor')"
                              : "; the offered ones are:"));
  for (const X509_Auth_Certificate* record : records_)
    FailDetail(ThumbprintHex(*record) + "  " + record->name);
  return nullptr;
}

}  // namespace x509auth_tool
