#pragma once
// Host callbacks for tests: every log call is recorded as (priority, raw
// format, formatted text); PIN prompts are answered from a script and
// recorded with their title and prompt; releases and messages are counted.
// The C callbacks reach one process-wide recorder, as a host's would.
#include <deque>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "x509_auth.h"

namespace x509auth_test {

struct LogEntry {
  X509_Auth_LogPriority priority;
  std::string format;
  std::string text;
};

struct PromptEntry {
  std::string title;
  std::string prompt;
};

struct MessageEntry {
  std::string message;
  std::string title;
};

// One scripted answer to a PIN or password prompt.
struct PinAnswer {
  static PinAnswer Value(std::string value) { return {false, std::move(value), 0}; }
  static PinAnswer Status(int status, std::string value = "ignored") {
    return {false, std::move(value), status};
  }
  static PinAnswer NullResult() { return {true, std::string(), 0}; }
  // A result whose value pointer is null (status 0).
  static PinAnswer NullValue() { return {false, std::string(), 0, true}; }

  bool null_result;
  std::string value;
  int status;
  bool null_value = false;
};

class RecordingCallbacks {
 public:
  static RecordingCallbacks& GetInstance();

  // Clears every record and the script.
  void Reset();

  // The callbacks to give the library; each may be left out.
  X509_Auth_Callbacks Callbacks(bool log = true, bool pin_entry = true, bool free_result = true,
                                bool message = true) const;

  void ScriptAnswer(PinAnswer answer) { answers_.push_back(std::move(answer)); }

  const std::vector<LogEntry>& Logs() const { return logs_; }
  const std::vector<PromptEntry>& Prompts() const { return prompts_; }
  const std::vector<MessageEntry>& Messages() const { return messages_; }
  int Releases() const { return releases_; }
  // Results handed out by the prompt but not yet released.
  int Outstanding() const { return handed_out_ - releases_; }

  // Log entries with this raw format string, in order.
  std::vector<LogEntry> WithFormat(const std::string& format) const;
  // True when an entry has exactly this priority, format and formatted text.
  bool Has(X509_Auth_LogPriority priority, const std::string& format,
           const std::string& text) const;
  // Index of the first entry with this format at or after |from|, or -1.
  int IndexOf(const std::string& format, std::size_t from = 0) const;
  // Every log line formatted, one per line, for failure messages.
  std::string Dump() const;

 private:
  friend struct RecordingCallbacksAccess;
  struct HeldResult {
    X509_Auth_PinEntryResult record;
    std::string value;
  };

  std::vector<LogEntry> logs_;
  std::vector<PromptEntry> prompts_;
  std::vector<MessageEntry> messages_;
  std::deque<PinAnswer> answers_;
  std::list<HeldResult> results_;
  int releases_ = 0;
  int handed_out_ = 0;
};

}  // namespace x509auth_test
