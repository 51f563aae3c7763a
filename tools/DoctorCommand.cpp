#include "DoctorCommand.h"

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "CommandLibrarySession.h"
#include "Formatting.h"
#include "InputOutput.h"
#include "OfferingReport.h"
#include "OptionChecks.h"

namespace x509auth_tool {
namespace {

nlohmann::json ToJson(const Finding& f) {
  return nlohmann::json{{"kind", f.kind},        {"path", f.path},
                        {"token", f.token},      {"thumbprint", f.thumbprint},
                        {"subject", f.subject},  {"offered", f.offered},
                        {"reasons", f.reasons},  {"details", f.details},
                        {"key", f.key},          {"key_path", f.key_path},
                        {"tls", f.tls},          {"tls_note", f.tls_note},
                        {"warnings", f.warnings}};
}

// A folder reported only for a warning: not an entry that could be offered.
bool WarningOnly(const Finding& f) { return f.kind == "directory" && f.reasons.empty(); }

void PrintHuman(const std::vector<Finding>& findings) {
  // Paths, subjects and labels are anyone's text: shown through Printable.
  auto line = [](const std::string& text) { PrintOut(Printable(text) + "\n"); };
  auto field = [&line](const char* name, const std::string& value) {
    char label[16];
    std::snprintf(label, sizeof label, "  %-11s ", name);
    line(label + value);
  };
  auto listed = [&field](const Finding& f, const char* heading,
                         const std::vector<std::string>& codes) {
    bool first = true;
    for (const std::string& code : codes) {
      const auto detail = f.details.find(code);
      field(first ? heading : "", code + (detail != f.details.end() ? ": " + detail->second : ""));
      first = false;
    }
  };
  std::size_t entries = 0, offered = 0, warnings = 0;
  for (const Finding& f : findings) {
    entries += WarningOnly(f) ? 0 : 1;
    offered += f.offered ? 1 : 0;
    warnings += f.warnings.size();
    line(f.kind == "smartcard" ? "token \"" + f.token + "\"" : f.path);
    if (!f.subject.empty()) field("subject", f.subject);
    if (!f.thumbprint.empty()) field("thumbprint", f.thumbprint);
    if (!WarningOnly(f)) field("offered", f.offered ? "yes" : "no");
    listed(f, "reasons", f.reasons);
    if (!f.key.empty()) {
      std::string key = f.key;
      if (!f.key_path.empty()) key += "  " + f.key_path;
      const auto detail = f.details.find("key");
      if (detail != f.details.end()) key += " (" + detail->second + ")";
      field("key", key);
    }
    listed(f, "warning", f.warnings);
    if (f.kind != "directory") {
      std::string tls;
      for (const std::string& version : f.tls) tls += (tls.empty() ? "" : ", ") + version;
      if (!f.tls_note.empty()) tls += (tls.empty() ? "" : "; ") + f.tls_note;
      field("tls", tls);
    }
  }
  std::string summary = std::to_string(entries) + (entries == 1 ? " entry, " : " entries, ") +
                        std::to_string(offered) + " offered, " + std::to_string(entries - offered) +
                        " not offered";
  if (warnings > 0)
    summary += ", " + std::to_string(warnings) + (warnings == 1 ? " warning" : " warnings");
  PrintOut(summary + "\n");
}

}  // namespace

int RunDoctor(const GlobalOptions& global, const DoctorOptions& options) {
  CommandLibrarySession session(global);  // logging and prompts only; never started
  const std::optional<std::vector<Finding>> findings = OfferingReport::Collect(global, true);
  if (!findings) return k_exit_failed;
  if (options.json) {
    nlohmann::json array = nlohmann::json::array();
    for (const Finding& finding : *findings) array.push_back(ToJson(finding));
    // A file name need not be UTF-8; JSON must be: such bytes become U+FFFD.
    PrintOut(array.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
  } else {
    PrintHuman(*findings);
  }
  return k_exit_ok;
}

Command AddDoctorCommand(CLI::App& app, const GlobalOptions& global) {
  auto options = std::make_shared<DoctorOptions>();
  CLI::App* command = app.add_subcommand(
      "doctor", "Explain, entry by entry, which certificates are offered and why not");
  command->add_flag("--json", options->json, "A JSON array of objects instead of the report");
  return {command, [&global, options] { return RunDoctor(global, *options); }, nullptr};
}

}  // namespace x509auth_tool
