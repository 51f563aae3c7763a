#include "Evidence.h"

#include <algorithm>
#include <cstdio>

#include "Formatting.h"

namespace x509auth_tool {
namespace {

bool g_verbose = false;
bool g_quiet = false;
std::vector<Evidence::Line> g_lines;
std::size_t g_step_begin = 0;
std::string Label(const Evidence::Line& line) {
  return line.label.empty() ? Evidence::PriorityName(line.priority) : line.label;
}

void Live(const Evidence::Line& line) {
  if (!g_verbose || g_quiet) return;
  std::fflush(stdout);
  std::fprintf(stderr, "x509-auth: [%s] %s\n", Printable(Label(line)).c_str(),
               Printable(line.text).c_str());
}

}  // namespace

void Evidence::Configure(bool verbose, bool quiet) {
  g_verbose = verbose;
  g_quiet = quiet;
}

const char* Evidence::PriorityName(X509_Auth_LogPriority priority) {
  static const char* const names[] = {"debug", "info", "warning", "error"};
  return names[static_cast<unsigned>(priority) & 3u];
}

void Evidence::AddLog(X509_Auth_LogPriority priority, const char* format, const std::string& text) {
  g_lines.push_back(Line{priority, format != nullptr ? format : "?", "", text});
  Live(g_lines.back());
}

void Evidence::AddNotice(const std::string& title, const std::string& text) {
  // A notice has no priority of its own; it is kept as an error-level line.
  g_lines.push_back(
      Line{X509_Auth_LogPriority_Error, "", "notice", title.empty() ? text : title + ": " + text});
  Live(g_lines.back());
}

void Evidence::AddForeign(const std::string& source, const std::string& text) {
  g_lines.push_back(Line{X509_Auth_LogPriority_Error, "", source, text});
  Live(g_lines.back());
}

void Evidence::BeginStep() { g_step_begin = g_lines.size(); }

const std::vector<Evidence::Line>& Evidence::Lines() { return g_lines; }

std::vector<std::string> Evidence::StepExplanation() {
  std::vector<std::string> shown;
  for (std::size_t i = g_step_begin; i < g_lines.size(); ++i) {
    const Line& line = g_lines[i];
    // Warnings are the library's trace of its steps; errors and notices explain.
    if (line.priority < X509_Auth_LogPriority_Error) continue;
    const std::string text = "[" + Label(line) + "] " + line.text;
    if (std::find(shown.begin(), shown.end(), text) == shown.end()) shown.push_back(text);
  }
  return shown;
}

bool Evidence::StepHas(const std::string& format_or_notice) {
  for (std::size_t i = g_step_begin; i < g_lines.size(); ++i) {
    const Line& line = g_lines[i];
    if (line.format.empty() ? line.text.find(format_or_notice) != std::string::npos
                            : line.format == format_or_notice)
      return true;
  }
  return false;
}

}  // namespace x509auth_tool
