#pragma once
// The process-wide state a test changes to put the library where a host
// would be: the working directory, environment variables (HOME, TMPDIR,
// SOFTHSM2_CONF, ...) and the PKCS#11 module the default lookup finds
// there. Every change goes through one of these and is undone, in reverse
// order, when it is destroyed, so a test cannot leak its directory or its
// HOME into the next one run in the same process.
//
//   ScopedTestEnvironment env;
//   ScopedTestEnvironment::LinkModule(work, OPENSC_MODULE_PATH);
//   ASSERT_TRUE(env.Enter(work));
//   env.Set("HOME", home.string());
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace x509auth_test {

class ScopedTestEnvironment {
 public:
  // The file name the library's default module lookup opens.
  static constexpr const char* k_module_link_name = "opensc-pkcs11.so";

  ScopedTestEnvironment() = default;
  ~ScopedTestEnvironment();
  ScopedTestEnvironment(const ScopedTestEnvironment&) = delete;
  ScopedTestEnvironment& operator=(const ScopedTestEnvironment&) = delete;

  // Creates |directory| when missing and makes it the working directory; the
  // first call remembers the directory to go back to. False, with a test
  // failure recorded, when it cannot be entered.
  bool Enter(const std::filesystem::path& directory);
  // Sets or removes a variable; the first change of each name remembers its
  // value (or its absence) to put back.
  void Set(const std::string& name, const std::string& value);
  void Unset(const std::string& name);

  // Links |target| as "opensc-pkcs11.so" in |directory| (created when
  // missing): a module where the default lookup of a host started there
  // finds it. The link goes with the directory.
  static void LinkModule(const std::filesystem::path& directory,
                         const std::filesystem::path& target);

 private:
  void Remember(const std::string& name);

  std::optional<std::filesystem::path> previous_directory_;
  std::vector<std::pair<std::string, std::optional<std::string>>> previous_variables_;
};

}  // namespace x509auth_test
