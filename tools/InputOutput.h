#pragma once
// Reading a command's input (a file or "-" for stdin) and writing its
// output (a file, or stdout). A write that fails is the command's failure:
// it is reported once, and nothing that was not written is claimed.
#include <openssl/evp.h>
#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace x509auth_tool {

// The bytes of |path| ("-": stdin), at most |limit| of them; nullopt after
// printing why (unreadable, or longer than |limit|, which names |what|).
std::optional<std::vector<unsigned char>> ReadInput(const std::string& path, std::size_t limit,
                                                    const std::string& what);
// Feeds |path| ("-": stdin) into |digest| as it is read, so that input of
// any length takes no memory; false after printing why.
bool DigestInput(const std::string& path, EVP_MD_CTX* digest);
// Writes |data| to |path| ("-" or empty: stdout), flushed and closed; false
// after printing why. A file that could not be written whole is removed. A
// new file gets |mode| (less the umask).
bool WriteOutput(const std::string& path, const unsigned char* data, std::size_t length,
                 mode_t mode = 0666);

// Text on stdout. A failure is remembered and reported by the next
// FlushStandardOutput.
void PrintOut(const std::string& text);
// Flushes stdout; false after printing "cannot write to standard output:
// <why>" (once per run) when this or an earlier write failed.
bool FlushStandardOutput();

}  // namespace x509auth_tool
