#include "ListCommand.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "CommandLibrarySession.h"
#include "Formatting.h"
#include "InputOutput.h"
#include "KeyFileCheck.h"
#include "OpenSslHandles.h"
#include "OptionChecks.h"
#include "RecordJson.h"
#include "Report.h"

namespace x509auth_tool {
namespace {

constexpr std::size_t k_short_thumbprint = 12;
// Certificates that run out within this many days are pointed out.
constexpr int64_t k_soon_days = 30;

bool UseColour() { return isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr; }

std::string Pad(const std::string& text, std::size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

// The KEY column: the algorithm, and a mark when a file certificate's key
// cannot serve (the library offers it all the same; signing fails).
std::string KeyCell(const X509_Auth_Certificate& record) {
  std::string cell = KeyAlgorithmName(record.key_algorithm_group);
  if (record.cert_type != X509_Auth_CertificateType_FileBased || record.key_path == nullptr)
    return cell;
  X509Ptr cert = RecordCertificate(record);
  const std::filesystem::path cert_path;  // only named in the library's own log lines
  const KeyFileStatus key = CheckKeyFile(cert.get(), cert_path, record.key_path);
  if (key.status == "missing") return cell + " (no key file)";
  if (key.status == "does-not-match") return cell + " (key mismatch)";
  if (key.status == "unreadable") return cell + " (key unreadable)";
  return cell;
}

void PrintTable(const std::vector<const X509_Auth_Certificate*>& records) {
  const std::vector<std::string> headings{"THUMBPRINT", "SUBJECT", "ISSUER",
                                          "SOURCE",     "KEY",     "EXPIRES"};
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  std::vector<std::vector<std::string>> rows;
  // 0 valid, 3 expiring soon. Expired and not yet valid certificates are
  // never offered: the library's chain check refuses them.
  std::vector<int> states;
  std::set<std::string> seen;
  std::size_t duplicates = 0;
  for (const X509_Auth_Certificate* record : records) {
    // The same certificate found twice is one certificate to its user.
    if (!seen.insert(ThumbprintHex(*record)).second) {
      ++duplicates;
      continue;
    }
    const int64_t days_left = (record->not_after - now) / 86400;
    const int state = days_left < k_soon_days ? 3 : 0;
    std::string expiry = IsoTime(record->not_after).substr(0, 10);
    if (state == 3) expiry += " (in " + std::to_string(days_left) + " days)";
    rows.push_back({ThumbprintHex(*record).substr(0, k_short_thumbprint), Printable(record->name),
                    Printable(record->issuer_name), SourceName(record->cert_type), KeyCell(*record),
                    expiry});
    states.push_back(state);
  }
  if (duplicates > 0)
    Warn(std::to_string(duplicates) + " certificate" + (duplicates == 1 ? " is" : "s are") +
         " found more than once and listed once; 'x509-auth doctor' shows where");
  std::vector<std::size_t> widths;
  for (const std::string& heading : headings) widths.push_back(heading.size());
  for (const auto& row : rows)
    for (std::size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
  const bool colour = UseColour();
  auto print_row = [&](const std::vector<std::string>& row, int state) {
    const bool heading = &row == &headings;
    std::string line;
    for (std::size_t c = 0; c < row.size(); ++c) {
      const bool last = c + 1 == row.size();
      std::string cell = last ? row[c] : Pad(row[c], widths[c]) + "  ";
      if (last && colour && state != 0) cell = "\033[33m" + cell + "\033[0m";
      line += cell;
    }
    if (heading && colour) line = "\033[1m" + line + "\033[0m";
    PrintOut(line + "\n");
  };
  print_row(headings, 0);
  for (std::size_t i = 0; i < rows.size(); ++i) print_row(rows[i], states[i]);
}

}  // namespace

int RunList(const GlobalOptions& global, const ListOptions& options) {
  CommandLibrarySession session(global);
  if (!session.Start() || !session.Load()) return k_exit_failed;
  std::set<std::string> warned;
  for (const X509_Auth_Certificate* record : session.Records())
    if (record->cert_type == X509_Auth_CertificateType_FileBased && record->key_path != nullptr &&
        warned.insert(record->key_path).second)
      if (const std::optional<std::string> exposed = KeyFileExposure(record->key_path))
        Warn(*exposed);
  if (options.json) {
    nlohmann::json array = nlohmann::json::array();
    for (const X509_Auth_Certificate* record : session.Records())
      array.push_back(RecordJson(*record));
    // A file name need not be UTF-8; JSON must be: such bytes become U+FFFD.
    PrintOut(array.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    return k_exit_ok;
  }
  if (session.Records().empty()) {
    PrintOut("No certificate is offered. 'x509-auth doctor' tells why a certificate is not.\n");
    return k_exit_ok;
  }
  PrintTable(session.Records());
  return k_exit_ok;
}

Command AddListCommand(CLI::App& app, const GlobalOptions& global) {
  auto options = std::make_shared<ListOptions>();
  CLI::App* command = app.add_subcommand("list", "List the offered certificates");
  command->add_flag("--json", options->json, "A JSON array of objects instead of a table");
  return {command, [&global, options] { return RunList(global, *options); }, nullptr};
}

}  // namespace x509auth_tool
