#include "X509Settings.h"

namespace quorvant::shared::x509 {

namespace {

void ReplaceList(std::vector<std::filesystem::path>& list, const char* const* entries,
                 std::uint64_t count) {
  list.clear();
  list.reserve(count);
  for (std::uint64_t i = 0; i < count; ++i) list.emplace_back(entries[i]);
}

}  // namespace

X509Settings& X509Settings::GetInstance() {
  static X509Settings instance;
  return instance;
}

void X509Settings::Replace(const X509_Auth_Settings& settings) {
  ReplaceList(certificate_directories_, settings.certificate_directories,
              settings.certificate_directory_count);
  ReplaceList(home_certificate_directories_, settings.home_certificate_directories,
              settings.home_certificate_directory_count);
}

}  // namespace quorvant::shared::x509
