#include <gtest/gtest.h>

#include "base/X509Settings.h"

namespace quorvant::shared::x509 {
namespace {

TEST(X509SettingsTest, GetInstanceReturnsTheSameObjectAndStartsEmpty) {
  EXPECT_EQ(&X509Settings::GetInstance(), &X509Settings::GetInstance());
  EXPECT_TRUE(X509Settings::GetInstance().CertificateDirectories().empty());
  EXPECT_TRUE(X509Settings::GetInstance().HomeCertificateDirectories().empty());
}

TEST(X509SettingsTest, ReplaceKeepsArrayOrderForBothLists) {
  const char* dirs[] = {"/etc/one", "relative/two", "/three"};
  const char* home_dirs[] = {".certs", "/abs/home"};
  X509_Auth_Settings settings{dirs, 3, home_dirs, 2};
  X509Settings::GetInstance().Replace(settings);
  const auto& first = X509Settings::GetInstance().CertificateDirectories();
  const auto& second = X509Settings::GetInstance().HomeCertificateDirectories();
  ASSERT_EQ(first.size(), 3u);
  EXPECT_EQ(first[0], "/etc/one");
  EXPECT_EQ(first[1], "relative/two");
  EXPECT_EQ(first[2], "/three");
  ASSERT_EQ(second.size(), 2u);
  EXPECT_EQ(second[0], ".certs");
  EXPECT_EQ(second[1], "/abs/home");
}

TEST(X509SettingsTest, ReplaceWithZeroCountsClearsBothLists) {
  const char* dirs[] = {"/a"};
  X509Settings::GetInstance().Replace(X509_Auth_Settings{dirs, 1, dirs, 1});
  X509Settings::GetInstance().Replace(X509_Auth_Settings{nullptr, 0, nullptr, 0});
  EXPECT_TRUE(X509Settings::GetInstance().CertificateDirectories().empty());
  EXPECT_TRUE(X509Settings::GetInstance().HomeCertificateDirectories().empty());
}

TEST(X509SettingsTest, ReplaceDoesNotKeepPointersToTheCallersStrings) {
  char buffer[] = "/original";
  const char* dirs[] = {buffer};
  X509Settings::GetInstance().Replace(X509_Auth_Settings{dirs, 1, nullptr, 0});
  buffer[1] = 'X';
  EXPECT_EQ(X509Settings::GetInstance().CertificateDirectories()[0], "/original");
}

}  // namespace
}  // namespace quorvant::shared::x509
