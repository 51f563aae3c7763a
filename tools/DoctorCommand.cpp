#include "DoctorCommand.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "CommandLibrarySession.h"
#include "OfferingReport.h"

namespace x509auth_tool {
namespace {

nlohmann::json ToJson(const Finding& f) {
  return nlohmann::json{{"kind", f.kind},       {"path", f.path},
                        {"token", f.token},     {"thumbprint", f.thumbprint},
                        {"subject", f.subject}, {"offered", f.offered},
                        {"reasons", f.reasons}, {"details", f.details},
                        {"key", f.key},         {"key_path", f.key_path},
                        {"tls", f.tls},         {"tls_note", f.tls_note}};
}

void PrintHuman(const std::vector<Finding>& findings) {
  auto field = [](const char* name, const std::string& value) {
    std::printf("  %-11s %s\n", name, value.c_str());
  };
  std::size_t offered = 0;
  for (const Finding& f : findings) {
    offered += f.offered ? 1 : 0;
    std::printf("%s\n",
                f.kind == "smartcard" ? ("token \"" + f.token + "\"").c_str() : f.path.c_str());
    if (!f.subject.empty()) field("subject", f.subject);
    if (!f.thumbprint.empty()) field("thumbprint", f.thumbprint);
    field("offered", f.offered ? "yes" : "no");
    bool first = true;
    for (const std::string& reason : f.reasons) {
      const auto detail = f.details.find(reason);
      field(first ? "reasons" : "",
            reason + (detail != f.details.end() ? ": " + detail->second : ""));
      first = false;
    }
    if (!f.key.empty()) {
      std::string key = f.key;
      if (!f.key_path.empty()) key += "  " + f.key_path;
      const auto detail = f.details.find("key");
      if (detail != f.details.end()) key += " (" + detail->second + ")";
      field("key", key);
    }
    if (f.kind != "directory") {
      std::string tls;
      for (const std::string& version : f.tls) tls += (tls.empty() ? "" : ", ") + version;
      if (!f.tls_note.empty()) tls += (tls.empty() ? "" : "; ") + f.tls_note;
      field("tls", tls);
    }
  }
  std::printf("%zu entr%s, %zu offered, %zu not offered\n", findings.size(),
              findings.size() == 1 ? "y" : "ies", offered, findings.size() - offered);
}

}  // namespace

int RunDoctor(const GlobalOptions& global, const DoctorOptions& options) {
  CommandLibrarySession session(global);  // logging and prompts only; never started
  const std::optional<std::vector<Finding>> findings = OfferingReport::Collect(global, true);
  if (!findings) return k_exit_failed;
  if (options.json) {
    nlohmann::json array = nlohmann::json::array();
    for (const Finding& finding : *findings) array.push_back(ToJson(finding));
    std::printf("%s\n", array.dump(2).c_str());
  } else {
    PrintHuman(*findings);
  }
  return k_exit_ok;
}

}  // namespace x509auth_tool
