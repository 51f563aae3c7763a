// The parsed-certificate cache gives what reading the file gives, every time:
// kept only while the file is exactly as it was, and bounded.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "TestPki.h"
#include "files/CertificateFileCache.h"
#include "files/CertificateFiles.h"

namespace quorvant::shared::x509 {
namespace {

using x509auth_test::CertOptions;
using x509auth_test::CertToPem;
using x509auth_test::KeyKind;
using x509auth_test::MakeCert;
using x509auth_test::SharedKey;
using x509auth_test::TestKey;
using x509auth_test::TestX509;
using x509auth_test::WriteFile;

TestX509 Named(const std::string& name) {
  TestKey key = SharedKey(KeyKind::k_ec);
  CertOptions options;
  options.common_name = name;
  return MakeCert(options, key.get());
}

std::string NameOf(const X509Ptr& cert) {
  if (!cert) return "<none>";
  char text[256] = {};
  X509_NAME_get_text_by_NID(X509_get_subject_name(cert.get()), NID_commonName, text, sizeof text);
  return text;
}

// Files whose last change is more than a second old count as settled.
void WaitUntilSettled() { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); }

class CertificateFileCacheTest : public ::testing::Test {
 protected:
  x509auth_test::TempDir dir_;
};

TEST_F(CertificateFileCacheTest, AJustWrittenFileIsReadButNotKept) {
  CertificateFileCache cache;
  TestX509 cert = Named("Fresh");
  WriteFile(dir_ / "a.pem", CertToPem(cert.get()));
  EXPECT_EQ(NameOf(cache.Read(dir_ / "a.pem")), "Fresh");
  EXPECT_EQ(NameOf(cache.Read(dir_ / "a.pem")), "Fresh");
  EXPECT_EQ(cache.Size(), 0u);
  EXPECT_EQ(cache.Hits(), 0u);
  EXPECT_EQ(cache.Read(dir_ / "missing.pem"), nullptr);
  EXPECT_EQ(cache.Size(), 0u);
}

TEST_F(CertificateFileCacheTest, SettledFilesAreKeptUntilTheyChange) {
  CertificateFileCache cache;
  TestX509 version_c = Named("Version C");
  // Version B rewrites version A's file in place, keeping its size.
  const std::map<std::string, std::string> pems = x509auth_test::PemsOfOneLength(
      {"Version A", "Version B"}, [](const std::string& name) { return Named(name); });
  ASSERT_EQ(pems.size(), 2u) << "no common PEM length";
  const std::string& pem_a = pems.at("Version A");
  const std::string& pem_b = pems.at("Version B");
  WriteFile(dir_ / "same-size.pem", pem_a);
  WriteFile(dir_ / "renamed.pem", pem_a);
  WriteFile(dir_ / "removed.pem", pem_a);
  WriteFile(dir_ / "not-a-cert.pem", std::string("hello"));
  for (int i = 0; i < 4; ++i) WriteFile(dir_ / ("bound" + std::to_string(i) + ".pem"), pem_a);
  WaitUntilSettled();

  const X509Ptr first = cache.Read(dir_ / "same-size.pem");
  const X509Ptr again = cache.Read(dir_ / "same-size.pem");
  EXPECT_EQ(first.get(), again.get()) << "kept: the same parsed certificate";
  EXPECT_EQ(cache.Hits(), 1u);
  EXPECT_EQ(cache.Read(dir_ / "not-a-cert.pem"), nullptr);
  EXPECT_EQ(cache.Read(dir_ / "not-a-cert.pem"), nullptr);
  EXPECT_EQ(cache.Hits(), 2u);
  EXPECT_EQ(NameOf(cache.Read(dir_ / "renamed.pem")), "Version A");
  EXPECT_EQ(NameOf(cache.Read(dir_ / "removed.pem")), "Version A");

  // Same size, rewritten in place, modification time put back: the change
  // time still differs.
  struct stat before {};
  ASSERT_EQ(stat((dir_ / "same-size.pem").c_str(), &before), 0);
  WriteFile(dir_ / "same-size.pem", pem_b);
  const timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, (dir_ / "same-size.pem").c_str(), times, 0), 0);
  EXPECT_EQ(NameOf(cache.Read(dir_ / "same-size.pem")), "Version B");
  // Replaced by another file.
  WriteFile(dir_ / "other.pem", CertToPem(version_c.get()));
  std::filesystem::rename(dir_ / "other.pem", dir_ / "renamed.pem");
  EXPECT_EQ(NameOf(cache.Read(dir_ / "renamed.pem")), "Version C");
  std::filesystem::remove(dir_ / "removed.pem");
  EXPECT_EQ(cache.Read(dir_ / "removed.pem"), nullptr);
  // Now a certificate where there was none.
  WriteFile(dir_ / "not-a-cert.pem", pem_a);
  EXPECT_EQ(NameOf(cache.Read(dir_ / "not-a-cert.pem")), "Version A");
}

TEST_F(CertificateFileCacheTest, NeverHoldsMoreThanItsCapacity) {
  CertificateFileCache cache(4);
  TestX509 cert = Named("Bound");
  for (int i = 0; i < 10; ++i)
    WriteFile(dir_ / ("f" + std::to_string(i) + ".pem"), CertToPem(cert.get()));
  WaitUntilSettled();
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(NameOf(cache.Read(dir_ / ("f" + std::to_string(i) + ".pem"))), "Bound");
      EXPECT_LE(cache.Size(), 4u);
    }
  }
  // The most recently used stay.
  const std::uint64_t hits = cache.Hits();
  cache.Read(dir_ / "f9.pem");
  EXPECT_EQ(cache.Hits(), hits + 1);
  cache.Clear();
  EXPECT_EQ(cache.Size(), 0u);
}

TEST_F(CertificateFileCacheTest, ReadsWhatTheReaderReadsForPemAndDer) {
  CertificateFileCache cache;
  TestX509 cert = Named("Both Forms");
  WriteFile(dir_ / "c.der", x509auth_test::CertToDer(cert.get()));
  WriteFile(dir_ / "c.pem", CertToPem(cert.get()));
  WaitUntilSettled();
  for (const char* name : {"c.der", "c.pem"}) {
    for (int i = 0; i < 2; ++i) {
      const X509Ptr read = cache.Read(dir_ / name);
      const X509Ptr direct = ReadX509FromDerOrPemFile(dir_ / name);
      ASSERT_NE(read, nullptr);
      EXPECT_EQ(X509_cmp(read.get(), direct.get()), 0);
    }
  }
  EXPECT_EQ(cache.Hits(), 2u);
}

// A scan shares the record made for an unchanged file, with its thumbprint
// taken once; any change to the file, or another key path for it, gives a
// new record.
TEST_F(CertificateFileCacheTest, AnUnchangedFileSharesOneRecordWithItsThumbprint) {
  CertificateFileCache cache;
  TestX509 first = Named("First"), second = Named("Second");
  WriteFile(dir_ / "a.pem", CertToPem(first.get()));
  WaitUntilSettled();
  const std::string path = (dir_ / "a.pem").native();
  const std::string key = (dir_ / "keys" / "a.pem.key").native();

  const auto record = cache.Read(AT_FDCWD, path.c_str(), path, key);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->cert_path.native(), path);
  EXPECT_EQ(record->key_path.native(), key);
  Thumbprint expected{};
  ASSERT_TRUE(GetThumbprintForX509Cert(first.get(), &expected));
  EXPECT_TRUE(record->has_thumbprint);
  EXPECT_EQ(record->thumbprint, expected);
  EXPECT_EQ(X509_cmp(record->x509.get(), first.get()), 0);

  // Relative to the open directory, the same entry.
  const int directory = open(dir_.path().c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(directory, 0);
  EXPECT_EQ(cache.Read(directory, "a.pem", path, key), record);
  // Another key path: the same certificate in a record of its own.
  const std::string other_key = (dir_ / "elsewhere" / "a.pem.key").native();
  const auto moved = cache.Read(directory, "a.pem", path, other_key);
  ASSERT_NE(moved, nullptr);
  EXPECT_NE(moved, record);
  EXPECT_EQ(moved->key_path.native(), other_key);
  EXPECT_EQ(moved->x509.get(), record->x509.get());

  // Rewritten: read again, with the new thumbprint.
  WriteFile(dir_ / "a.pem", CertToPem(second.get()));
  const auto rewritten = cache.Read(directory, "a.pem", path, key);
  close(directory);
  ASSERT_NE(rewritten, nullptr);
  EXPECT_NE(rewritten, record);
  ASSERT_TRUE(GetThumbprintForX509Cert(second.get(), &expected));
  EXPECT_EQ(rewritten->thumbprint, expected);
  EXPECT_EQ(NameOf(X509Ptr(X509_dup(rewritten->x509.get()))), "Second");
  // What was handed out before stays as it was.
  EXPECT_EQ(X509_cmp(record->x509.get(), first.get()), 0);
}

// A file that could not be opened because no descriptor was left says nothing
// about its contents: keeping "no certificate" for it would hide the
// certificate from every later request until the file changed.
TEST_F(CertificateFileCacheTest, AFileNotOpenedForWantOfDescriptorsIsNotKept) {
#ifdef __SANITIZE_ADDRESS__
  // The sanitizer runtime needs a descriptor of its own for its checks.
  GTEST_SKIP() << "needs the normal build";
#endif
  CertificateFileCache cache;
  TestX509 cert = Named("Kept");
  WriteFile(dir_ / "a.pem", CertToPem(cert.get()));
  WaitUntilSettled();

  // With the limit at the lowest free descriptor, no file can be opened.
  const int lowest = open("/dev/null", O_RDONLY);
  ASSERT_GE(lowest, 0);
  close(lowest);
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  const rlimit tight{static_cast<rlim_t>(lowest), saved.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  errno = 0;
  X509Ptr none = cache.Read(dir_ / "a.pem");
  const int read_errno = errno;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);

  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(read_errno, EMFILE);
  EXPECT_EQ(cache.Size(), 0u);
  EXPECT_EQ(NameOf(cache.Read(dir_ / "a.pem")), "Kept");
  EXPECT_EQ(cache.Size(), 1u);
}

TEST_F(CertificateFileCacheTest, AFileTooLargeOrNoRegularFileOnceOpenedIsNeverKept) {
  CertificateFileCache cache;
  const int file = open((dir_ / "huge.pem").c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_GE(file, 0);
  ASSERT_EQ(ftruncate(file, 5 * 1024 * 1024), 0);
  close(file);
  std::filesystem::create_symlink("/dev/zero", dir_ / "zero.pem");
  WaitUntilSettled();
  for (int i = 0; i < 2; ++i) {
    CertificateFileCache::Facts facts;
    EXPECT_EQ(cache.Read(AT_FDCWD, (dir_ / "huge.pem").c_str(), (dir_ / "huge.pem").string(),
                         std::string(), &facts),
              nullptr);
    EXPECT_EQ(facts.refusal, x509auth_common::RegularFile::Refusal::k_too_large);
    EXPECT_EQ(facts.reason, "larger than 4 MiB (5242880 bytes)");
    EXPECT_FALSE(facts.settled);
    EXPECT_EQ(cache.Read(AT_FDCWD, (dir_ / "zero.pem").c_str(), (dir_ / "zero.pem").string(),
                         std::string(), &facts),
              nullptr);
    EXPECT_EQ(facts.refusal, x509auth_common::RegularFile::Refusal::k_not_regular);
    EXPECT_FALSE(facts.settled);
  }
  EXPECT_EQ(cache.Size(), 0u);
  EXPECT_EQ(cache.Hits(), 0u);
}

}  // namespace
}  // namespace quorvant::shared::x509
