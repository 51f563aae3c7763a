#include "RecordingCallbacks.h"

#include <cstdarg>
#include <cstdio>
#include <sstream>

namespace x509auth_test {

struct RecordingCallbacksAccess {
  __attribute__((format(printf, 2, 0))) static void Log(X509_Auth_LogPriority priority,
                                                        const char* format, va_list arguments) {
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    RecordingCallbacks::GetInstance().logs_.push_back({priority, format, std::move(text)});
  }

  static X509_Auth_PinEntryResult* PinEntry(const char* title, const char* prompt) {
    RecordingCallbacks& self = RecordingCallbacks::GetInstance();
    self.prompts_.push_back({title ? title : "(null)", prompt ? prompt : "(null)"});
    if (self.answers_.empty()) return nullptr;
    PinAnswer answer = std::move(self.answers_.front());
    self.answers_.pop_front();
    if (answer.null_result) return nullptr;
    RecordingCallbacks::HeldResult& held = self.results_.emplace_back();
    held.value = std::move(answer.value);
    held.record.value = answer.null_value ? nullptr : held.value.c_str();
    held.record.status = answer.status;
    ++self.handed_out_;
    return &held.record;
  }

  static void FreeResult(X509_Auth_PinEntryResult* result) {
    RecordingCallbacks& self = RecordingCallbacks::GetInstance();
    for (auto it = self.results_.begin(); it != self.results_.end(); ++it) {
      if (&it->record == result) {
        self.results_.erase(it);
        ++self.releases_;
        return;
      }
    }
    // A pointer that was never handed out, or a double release: make it
    // visible as a negative balance.
    self.releases_ += 1000;
  }

  static void Message(const char* message, const char* title) {
    RecordingCallbacks::GetInstance().messages_.push_back(
        {message ? message : "(null)", title ? title : "(null)"});
  }
};

RecordingCallbacks& RecordingCallbacks::GetInstance() {
  static RecordingCallbacks instance;
  return instance;
}

void RecordingCallbacks::Reset() {
  logs_.clear();
  prompts_.clear();
  messages_.clear();
  answers_.clear();
  results_.clear();
  releases_ = 0;
  handed_out_ = 0;
}

X509_Auth_Callbacks RecordingCallbacks::Callbacks(bool log, bool pin_entry, bool free_result,
                                                  bool message) const {
  X509_Auth_Callbacks callbacks{};
  callbacks.log = log ? &RecordingCallbacksAccess::Log : nullptr;
  callbacks.pin_entry = pin_entry ? &RecordingCallbacksAccess::PinEntry : nullptr;
  callbacks.free_pin_entry_result = free_result ? &RecordingCallbacksAccess::FreeResult : nullptr;
  callbacks.message = message ? &RecordingCallbacksAccess::Message : nullptr;
  return callbacks;
}

std::vector<LogEntry> RecordingCallbacks::WithFormat(const std::string& format) const {
  std::vector<LogEntry> found;
  for (const LogEntry& entry : logs_)
    if (entry.format == format) found.push_back(entry);
  return found;
}

bool RecordingCallbacks::Has(X509_Auth_LogPriority priority, const std::string& format,
                             const std::string& text) const {
  for (const LogEntry& entry : logs_)
    if (entry.priority == priority && entry.format == format && entry.text == text) return true;
  return false;
}

int RecordingCallbacks::IndexOf(const std::string& format, std::size_t from) const {
  for (std::size_t i = from; i < logs_.size(); ++i)
    if (logs_[i].format == format) return static_cast<int>(i);
  return -1;
}

std::string RecordingCallbacks::Dump() const {
  std::ostringstream out;
  for (const LogEntry& entry : logs_) out << entry.priority << " | " << entry.text << "\n";
  return out.str();
}

}  // namespace x509auth_test
