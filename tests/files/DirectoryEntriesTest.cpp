// The directory reader walks a directory exactly as the standard iterator
// does: the same entries in the same order, the same decision on what is a
// regular file, and the same error descriptions where either gives up.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "ForkedChild.h"
#include "TestPki.h"
#include "files/DirectoryEntries.h"

namespace quorvant::shared::x509 {
namespace {

namespace fs = std::filesystem;
using x509auth_test::WriteFile;

// One line per entry ("path regular|other"), or the description of the
// error that ended the walk, as the standard iterator reports it.
std::string WalkWithTheStandardIterator(const fs::path& directory) {
  std::string walk;
  try {
    for (const fs::directory_entry& entry : fs::directory_iterator(directory))
      walk += entry.path().native() + (entry.is_regular_file() ? " regular\n" : " other\n");
  } catch (const fs::filesystem_error& error) {
    walk += std::string("error ") + error.what() + "\n";
  }
  return walk;
}

std::string WalkWithTheReader(const fs::path& directory) {
  std::string walk;
  try {
    DirectoryEntries entries(directory);
    while (entries.Next()) {
      EXPECT_EQ(entries.Path(), (directory / entries.Name()).native());
      walk += entries.Path() + (entries.IsRegularFile() ? " regular\n" : " other\n");
    }
  } catch (const fs::filesystem_error& error) {
    walk += std::string("error ") + error.what() + "\n";
  }
  return walk;
}

class DirectoryEntriesTest : public ::testing::Test {
 protected:
  x509auth_test::TempDir dir_;
};

TEST_F(DirectoryEntriesTest, WalksEveryKindOfEntryAsTheStandardIteratorDoes) {
  const fs::path certs = dir_ / "certs";
  fs::create_directories(certs / "subdirectory");
  WriteFile(certs / "plain.pem", std::string("x"));
  WriteFile(dir_ / "outside.pem", std::string("y"));
  fs::create_symlink(dir_ / "outside.pem", certs / "link-to-file.pem");
  fs::create_symlink(certs / "subdirectory", certs / "link-to-directory");
  fs::create_symlink(dir_ / "nowhere.pem", certs / "dangling.pem");
  ASSERT_EQ(mkfifo((certs / "fifo").c_str(), 0600), 0);
  for (int i = 0; i < 300; ++i) WriteFile(certs / ("many" + std::to_string(i)), std::string("z"));

  const std::string expected = WalkWithTheStandardIterator(certs);
  EXPECT_EQ(WalkWithTheReader(certs), expected);
  EXPECT_NE(expected.find("/link-to-file.pem regular\n"), std::string::npos) << expected;
  EXPECT_NE(expected.find("/dangling.pem other\n"), std::string::npos) << expected;
  EXPECT_EQ(expected.find("error"), std::string::npos) << expected;
  EXPECT_EQ(std::count(expected.begin(), expected.end(), '\n'), 306);
}

TEST_F(DirectoryEntriesTest, AnEmptyDirectoryHasNoEntries) {
  fs::create_directories(dir_ / "empty");
  EXPECT_EQ(WalkWithTheReader(dir_ / "empty"), "");
  EXPECT_EQ(WalkWithTheStandardIterator(dir_ / "empty"), "");
}

TEST_F(DirectoryEntriesTest, ALinkLoopThrowsTheStatusErrorOfTheStandardIterator) {
  const fs::path certs = dir_ / "certs";
  fs::create_directories(certs);
  fs::create_symlink(certs / "loop", certs / "loop");
  const std::string expected = WalkWithTheStandardIterator(certs);
  EXPECT_EQ(expected, "error filesystem error: status: Too many levels of symbolic links [" +
                          (certs / "loop").native() + "]\n");
  EXPECT_EQ(WalkWithTheReader(certs), expected);
}

TEST_F(DirectoryEntriesTest, WhatCannotBeOpenedThrowsTheOpeningErrorOfTheStandardIterator) {
  WriteFile(dir_ / "file", std::string("x"));
  for (const fs::path& directory : {dir_ / "missing", dir_ / "file", dir_ / "file" / "below"}) {
    const std::string expected = WalkWithTheStandardIterator(directory);
    EXPECT_EQ(
        expected.rfind("error filesystem error: directory iterator cannot open directory: ", 0), 0u)
        << expected;
    EXPECT_EQ(WalkWithTheReader(directory), expected);
  }
}

TEST_F(DirectoryEntriesTest, AnUnreadableDirectoryThrowsAsTheStandardIteratorDoes) {
  const fs::path locked = dir_ / "locked";
  fs::create_directories(locked);
  WriteFile(locked / "inside.pem", std::string("x"));
  ASSERT_EQ(chmod(locked.c_str(), 0), 0);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  // Root reads any directory: the comparison runs as nobody.
  const std::string report = x509auth_test::RunInChild(
      [&] { return WalkWithTheStandardIterator(locked) + "--\n" + WalkWithTheReader(locked); },
      {.as_nobody = true});
  EXPECT_EQ(report,
            "error filesystem error: directory iterator cannot open directory: "
            "Permission denied [" +
                locked.native() +
                "]\n--\n"
                "error filesystem error: directory iterator cannot open directory: "
                "Permission denied [" +
                locked.native() + "]\n");
  chmod(locked.c_str(), 0755);
}

TEST_F(DirectoryEntriesTest, ReadingOnAfterTheEndStaysAtTheEnd) {
  const fs::path certs = dir_ / "certs";
  fs::create_directories(certs);
  WriteFile(certs / "only.pem", std::string("x"));
  DirectoryEntries entries(certs);
  ASSERT_TRUE(entries.Next());
  EXPECT_STREQ(entries.Name(), "only.pem");
  EXPECT_GE(entries.Descriptor(), 0);
  EXPECT_FALSE(entries.Next());
  EXPECT_FALSE(entries.Next());
}

}  // namespace
}  // namespace quorvant::shared::x509
