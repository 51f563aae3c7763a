#include "SoftHsmToken.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "TestPki.h"

namespace x509auth_test {

namespace {

constexpr const char* k_conf_variable = "SOFTHSM2_CONF";
// Lets a test of the skip itself name a module that is not there.
constexpr const char* k_module_override_variable = "X509AUTH_TEST_SOFTHSM2_MODULE";

std::string ReadText(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

SoftHsmToken::SoftHsmToken() : SoftHsmToken(Options{}) {}

SoftHsmToken::SoftHsmToken(const Options& options) {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "x509auth-softhsm-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed";
    return;
  }
  root_ = pattern;
  token_directory_ = root_ / "tokens";
  std::filesystem::create_directories(token_directory_);
  // SoftHSM2 2.6.1 skips the first name of a list that starts with "-", so
  // that name is given twice.
  std::string mechanisms = options.mechanisms;
  if (!mechanisms.empty() && mechanisms[0] == '-')
    mechanisms = mechanisms.substr(0, mechanisms.find(',')) + "," + mechanisms.substr(1);
  WriteFile(root_ / "softhsm2.conf", "directories.tokendir = " + token_directory_.string() +
                                         "\nobjectstore.backend = file\nlog.level = ERROR\n" +
                                         "slots.mechanisms = " + mechanisms + "\n");

  // The module reads its configuration when it is loaded, so this must be in
  // place before any Libp11Context loads it.
  environment_ = std::make_unique<ScopedTestEnvironment>();
  environment_->Set(k_conf_variable, (root_ / "softhsm2.conf").string());

  working_directory_ = root_ / options.working_directory;
  if (!options.module_link_directory.empty())
    ScopedTestEnvironment::LinkModule(root_ / options.module_link_directory,
                                      options.module_link_target);
  environment_->Enter(working_directory_);
}

SoftHsmToken::~SoftHsmToken() {
  if (root_.empty()) return;
  // Out of the directory and back to the old configuration before both go.
  environment_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

std::filesystem::path SoftHsmToken::ModulePath() {
  if (const char* module = std::getenv(k_module_override_variable)) return module;
  return SOFTHSM2_MODULE_PATH;
}

std::optional<std::string> SoftHsmToken::MissingReason() {
  const std::filesystem::path module = ModulePath();
  std::error_code error;
  if (!std::filesystem::is_regular_file(module, error))
    return "SoftHSM2 is not installed: no module at \"" + module.string() +
           "\" (install the softhsm2 package)";
  if (std::system("command -v softhsm2-util > /dev/null 2>&1") != 0)
    return "SoftHSM2 is not installed: softhsm2-util is not on PATH (install the softhsm2 package)";
  if (std::system("command -v pkcs11-tool > /dev/null 2>&1") != 0)
    return "pkcs11-tool is not on PATH (install the opensc package)";
  return std::nullopt;
}

void SoftHsmToken::Run(const std::vector<std::string>& arguments) {
  const std::filesystem::path output = root_ / ("command-" + std::to_string(++file_counter_));
  const pid_t child = fork();
  if (child == 0) {
    const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
    }
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  const bool waited = child > 0 && waitpid(child, &status, 0) == child;
  std::string command;
  for (const std::string& argument : arguments) command += argument + " ";
  EXPECT_TRUE(waited && WIFEXITED(status) && WEXITSTATUS(status) == 0) << command << "failed:\n"
                                                                       << ReadText(output);
}

void SoftHsmToken::InitToken(const std::string& label, const std::string& pin,
                             const std::string& so_pin) {
  Run({"softhsm2-util", "--init-token", "--free", "--label", label, "--pin", pin, "--so-pin",
       so_pin});
}

void SoftHsmToken::ImportCert(const std::string& token_label, X509* cert, const std::string& id,
                              const std::string& object_label, const std::string& pin) {
  const std::filesystem::path file = root_ / ("cert-" + std::to_string(++file_counter_) + ".der");
  WriteFile(file, CertToDer(cert));
  Run({"pkcs11-tool", "--module", ModulePath().string(), "--token-label", token_label, "--login",
       "--pin", pin, "--write-object", file.string(), "--type", "cert", "--id", id, "--label",
       object_label});
}

void SoftHsmToken::ImportKey(const std::string& token_label, EVP_PKEY* key, const std::string& id,
                             const std::string& object_label, const std::string& pin,
                             bool always_authenticate) {
  const std::filesystem::path file = root_ / ("key-" + std::to_string(++file_counter_) + ".pem");
  WriteFile(file, KeyToPem(key));
  std::vector<std::string> arguments = {"pkcs11-tool",   "--module",  ModulePath().string(),
                                        "--token-label", token_label, "--login",
                                        "--pin",         pin,         "--write-object",
                                        file.string(),   "--type",    "privkey",
                                        "--id",          id,          "--label",
                                        object_label};
  if (always_authenticate) arguments.push_back("--always-auth");
  Run(arguments);
}

void SoftHsmToken::ImportCertAndKey(const std::string& token_label, X509* cert, EVP_PKEY* key,
                                    const std::string& id, const std::string& object_label,
                                    const std::string& pin) {
  ImportCert(token_label, cert, id, object_label, pin);
  ImportKey(token_label, key, id, object_label, pin);
}

void SoftHsmToken::DeleteToken(const std::string& token_label) {
  Run({"softhsm2-util", "--delete-token", "--token", token_label});
}

}  // namespace x509auth_test
