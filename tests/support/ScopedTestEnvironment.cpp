#include "ScopedTestEnvironment.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <system_error>

namespace x509auth_test {

ScopedTestEnvironment::~ScopedTestEnvironment() {
  for (auto it = previous_variables_.rbegin(); it != previous_variables_.rend(); ++it) {
    if (it->second)
      setenv(it->first.c_str(), it->second->c_str(), 1);
    else
      unsetenv(it->first.c_str());
  }
  if (previous_directory_) {
    std::error_code error;
    std::filesystem::current_path(*previous_directory_, error);
    if (error)
      ADD_FAILURE() << "cannot go back to " << *previous_directory_ << ": " << error.message();
  }
}

bool ScopedTestEnvironment::Enter(const std::filesystem::path& directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (!previous_directory_) previous_directory_ = std::filesystem::current_path();
  std::filesystem::current_path(directory, error);
  if (error) {
    ADD_FAILURE() << "cannot enter " << directory << ": " << error.message();
    return false;
  }
  return true;
}

void ScopedTestEnvironment::Set(const std::string& name, const std::string& value) {
  Remember(name);
  setenv(name.c_str(), value.c_str(), 1);
}

void ScopedTestEnvironment::Unset(const std::string& name) {
  Remember(name);
  unsetenv(name.c_str());
}

void ScopedTestEnvironment::Remember(const std::string& name) {
  const bool known = std::any_of(previous_variables_.begin(), previous_variables_.end(),
                                 [&name](const auto& entry) { return entry.first == name; });
  if (known) return;
  const char* value = std::getenv(name.c_str());
  previous_variables_.emplace_back(
      name, value != nullptr ? std::optional<std::string>(value) : std::nullopt);
}

void ScopedTestEnvironment::LinkModule(const std::filesystem::path& directory,
                                       const std::filesystem::path& target) {
  std::filesystem::create_directories(directory);
  std::filesystem::create_symlink(target, directory / k_module_link_name);
}

}  // namespace x509auth_test
