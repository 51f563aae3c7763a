#include "ModuleSettings.h"

#include <errno.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "x509auth/RegularFile.h"

namespace x509auth_pkcs11 {
namespace {

constexpr const char* k_default_opensc_module = "/usr/lib/x86_64-linux-gnu/pkcs11/opensc-pkcs11.so";

std::string Trim(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

std::vector<std::string> SplitColons(const std::string& text) {
  std::vector<std::string> parts;
  std::stringstream stream(text);
  std::string part;
  while (std::getline(stream, part, ':')) {
    part = Trim(part);
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

const char* Environment(const char* name) {
  // secure_getenv: a set-user-ID program loading the module must not take
  // directories or a module path from its caller's environment.
  return secure_getenv(name);
}

std::string ConfigFilePath() {
  if (const char* explicit_path = Environment("X509AUTH_PKCS11_CONF"))
    if (*explicit_path != '\0') return explicit_path;
  std::string user;
  if (const char* xdg = Environment("XDG_CONFIG_HOME"); xdg != nullptr && *xdg == '/')
    user = std::string(xdg) + "/x509auth/pkcs11.conf";
  else if (const char* home = Environment("HOME"); home != nullptr && *home == '/')
    user = std::string(home) + "/.config/x509auth/pkcs11.conf";
  if (!user.empty() && access(user.c_str(), R_OK) == 0) return user;
  return "/etc/x509auth/pkcs11.conf";
}

bool ParseSwitch(const std::string& value, bool& out) {
  if (value == "on" || value == "yes" || value == "true" || value == "1") {
    out = true;
    return true;
  }
  if (value == "off" || value == "no" || value == "false" || value == "0") {
    out = false;
    return true;
  }
  return false;
}

void Apply(const std::string& key, const std::string& value, ModuleSettings& settings,
           const std::string& where) {
  if (key == "dirs") {
    settings.dirs = SplitColons(value);
  } else if (key == "home_dirs") {
    settings.home_dirs = SplitColons(value);
  } else if (key == "ca_files") {
    settings.ca_files = SplitColons(value);
  } else if (key == "module") {
    settings.module = value;
  } else if (key == "log_level") {
    const int threshold = ParseLogLevel(value);
    if (threshold < 0)
      settings.problems.push_back(where + ": log_level '" + value +
                                  "' is not debug, info, warning, error or none");
    else
      settings.log_threshold = threshold;
  } else if (key == "token_certificates") {
    if (!ParseSwitch(value, settings.token_certificates))
      settings.problems.push_back(where + ": token_certificates '" + value + "' is not on or off");
  } else {
    settings.problems.push_back(where + ": unknown setting '" + key + "'");
  }
}

}  // namespace

void ModuleSettings::ParseText(const std::string& text, ModuleSettings& settings) {
  std::istringstream lines(text);
  std::string line;
  int number = 0;
  while (std::getline(lines, line)) {
    ++number;
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    const auto equals = line.find('=');
    const std::string where =
        (settings.config_file.empty() ? std::string("settings") : settings.config_file) + ":" +
        std::to_string(number);
    if (equals == std::string::npos) {
      settings.problems.push_back(where + ": not a 'key = value' line");
      continue;
    }
    Apply(Trim(line.substr(0, equals)), Trim(line.substr(equals + 1)), settings, where);
  }
}

ModuleSettings ModuleSettings::Load() {
  ModuleSettings settings;
  if (access(k_default_opensc_module, R_OK) == 0) settings.module = k_default_opensc_module;
  const std::string path = ConfigFilePath();
  // A FIFO or a device named as the settings file would block or fill the
  // memory of the program loading the module; it is skipped like a file
  // that is not there, but said.
  x509auth_common::RegularFile file = x509auth_common::RegularFile::Open(path);
  std::vector<unsigned char> bytes;
  if (file.IsOpen() && file.ReadAll(bytes)) {
    settings.config_file = path;
    ParseText(std::string(bytes.begin(), bytes.end()), settings);
  } else if (file.WhyRefused() != x509auth_common::RegularFile::Refusal::k_open_failed ||
             file.Error() != ENOENT) {
    settings.file_refusal =
        "settings file " + path + " skipped: " + file.Reason() + "; defaults used";
  }
  const struct {
    const char* variable;
    const char* key;
  } overrides[] = {
      {"X509AUTH_DIRS", "dirs"},         {"X509AUTH_HOME_DIRS", "home_dirs"},
      {"X509AUTH_CA_FILES", "ca_files"}, {"X509AUTH_MODULE", "module"},
      {"X509AUTH_LOG", "log_level"},     {"X509AUTH_TOKEN_CERTIFICATES", "token_certificates"}};
  for (const auto& entry : overrides)
    if (const char* value = Environment(entry.variable))
      Apply(entry.key, Trim(value), settings, entry.variable);
  return settings;
}

std::string ModuleSettings::Fingerprint() const {
  std::string text;
  for (const std::string& dir : dirs) text += "dir=" + dir + "\n";
  for (const std::string& dir : home_dirs) text += "home=" + dir + "\n";
  for (const std::string& file : ca_files) text += "ca=" + file + "\n";
  text += "module=" + (token_certificates ? module : std::string()) + "\n";
  return text;
}

}  // namespace x509auth_pkcs11
