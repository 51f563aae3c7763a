#pragma once
// A file of |size| bytes that takes no room on disk: how the file tests make
// files far over the size limit.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <filesystem>

namespace quorvant::shared::x509::test {

inline void MakeSparseFile(const std::filesystem::path& path, off_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, size), 0);
  close(fd);
}

}  // namespace quorvant::shared::x509::test
