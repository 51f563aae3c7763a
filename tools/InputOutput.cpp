#include "InputOutput.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Report.h"

namespace x509auth_tool {
namespace {
struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;
}  // namespace

std::optional<std::vector<unsigned char>> ReadInput(const std::string& path) {
  FilePtr owned;
  std::FILE* in = stdin;
  if (path != "-") {
    owned.reset(std::fopen(path.c_str(), "rb"));
    if (!owned) return Fail("cannot read " + path + ": " + std::strerror(errno)), std::nullopt;
    in = owned.get();
  }
  std::vector<unsigned char> data;
  unsigned char buffer[65536];
  std::size_t n;
  // One Ctrl-D on a terminal ends the input: stop at the first end of file
  // rather than read on for a second one.
  while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0) {
    data.insert(data.end(), buffer, buffer + n);
    if (std::feof(in)) break;
  }
  if (std::ferror(in))
    return Fail("cannot read " + (path == "-" ? std::string("standard input") : path)),
           std::nullopt;
  return data;
}

bool WriteOutput(const std::string& path, const unsigned char* data, std::size_t length) {
  if (path.empty() || path == "-") {
    const bool ok = std::fwrite(data, 1, length, stdout) == length && std::fflush(stdout) == 0;
    if (!ok) Fail("cannot write to standard output");
    return ok;
  }
  FilePtr out(std::fopen(path.c_str(), "wb"));
  if (!out) return Fail("cannot write " + path + ": " + std::strerror(errno)), false;
  if (std::fwrite(data, 1, length, out.get()) != length || std::fclose(out.release()) != 0)
    return Fail("cannot write " + path), false;
  return true;
}

}  // namespace x509auth_tool
