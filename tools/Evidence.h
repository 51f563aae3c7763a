#pragma once
// The library's log lines and notices of one command. They are evidence, not
// output: kept while the command runs, shown under the failure line when the
// command fails (the ones logged since the step that failed began), and shown
// as they come only with -v.
#include <cstddef>
#include <string>
#include <vector>

#include "x509_auth.h"

namespace x509auth_tool {

class Evidence {
 public:
  struct Line {
    X509_Auth_LogPriority priority;
    std::string format;  // the library's raw format; empty for a notice
    std::string label;   // shown instead of the priority's name when set
    std::string text;
  };

  // -v: every line printed as it comes; -q: none ever printed.
  static void Configure(bool verbose, bool quiet);
  static void AddLog(X509_Auth_LogPriority priority, const char* format, const std::string& text);
  // A notice the library meant for the user (its message callback).
  static void AddNotice(const std::string& title, const std::string& text);
  // A line the library wrote through someone else (the provider), whose
  // priority is not known; |source| names it. Kept like an error.
  static void AddForeign(const std::string& source, const std::string& text);

  // A step whose failure the command reports begins: only lines from here
  // on explain it.
  static void BeginStep();
  static const std::vector<Line>& Lines();
  // Errors and notices of the current step, without repeats.
  static std::vector<std::string> StepExplanation();
  // True when a line of the current step has exactly this raw format (or,
  // for notices, starts with |text|).
  static bool StepHas(const std::string& format_or_notice);

  static const char* PriorityName(X509_Auth_LogPriority priority);
};

}  // namespace x509auth_tool
