#pragma once
// One use of the library, as any host makes it: callbacks installed and the
// directories set (X509_Auth_Init), the extra CAs added, the certificates
// listed once, and X509_Auth_DeInit at the end.
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "GlobalOptions.h"
#include "x509_auth.h"

namespace x509auth_tool {

class LibrarySession {
 public:
  // A formatted log line with the library's priority.
  using LogObserver = std::function<void(X509_Auth_LogPriority, const std::string&)>;

  explicit LibrarySession(const GlobalOptions& options);
  ~LibrarySession();
  LibrarySession(const LibrarySession&) = delete;
  LibrarySession& operator=(const LibrarySession&) = delete;

  // Initialises the library and adds the CAs; false after printing why.
  bool Start();
  // Lists the offered certificates (once); false after printing why.
  bool Load();
  const std::vector<const X509_Auth_Certificate*>& Records() const { return records_; }

  // The record |argument| names (a full thumbprint or a unique prefix), or
  // null after printing why, with the candidates.
  const X509_Auth_Certificate* Find(const std::string& argument);

  // Also hands every log line to |observer| while the session lives.
  static void SetLogObserver(LogObserver observer);

  // While it lives, log lines with this exact format are shown as info,
  // not as errors: for failures the tool expects and explains itself.
  class Demotion {
   public:
    explicit Demotion(const char* format);
    ~Demotion();
    Demotion(const Demotion&) = delete;
    Demotion& operator=(const Demotion&) = delete;
  };

  // Appends the unanswered prompt, if any, to a failure message.
  static std::string WithPromptNote(const std::string& message);

 private:
  const GlobalOptions& options_;
  bool started_ = false;
  bool loaded_ = false;
  const X509_Auth_Certificate* array_ = nullptr;
  std::vector<const X509_Auth_Certificate*> records_;
};

}  // namespace x509auth_tool
