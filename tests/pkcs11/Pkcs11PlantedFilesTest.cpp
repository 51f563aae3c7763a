// Files that are not what their name says, planted where the module reads
// settings, CA certificates or key file headers: a FIFO (reading blocks for
// ever), /dev/zero (reading never ends) and a regular file over 4 MiB. Each
// is skipped with one log line naming it and the reason, and C_Initialize
// and the listing go on. Every case runs in a child with a time limit and,
// outside the sanitizer build, 1 GB of address space.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <sstream>

#include "ForkedChild.h"
#include "Pkcs11Session.h"

namespace x509auth_test {
namespace {

enum class Planted { k_fifo, k_dev_zero, k_over_4_mib };

class Pkcs11PlantedFilesTest : public Pkcs11Test {
 protected:
  void SetUp() override {
    Pkcs11Test::SetUp();
    setenv("X509AUTH_LOG", "warning", 1);
  }

  // Puts the planted file at |path| (/dev/zero through a symbolic link)
  // and says why the module must refuse it.
  static std::string Plant(Planted kind, const std::filesystem::path& path) {
    std::filesystem::remove(path);
    switch (kind) {
      case Planted::k_fifo: EXPECT_EQ(mkfifo(path.c_str(), 0600), 0); return "not a regular file";
      case Planted::k_dev_zero:
        std::filesystem::create_symlink("/dev/zero", path);
        return "not a regular file";
      case Planted::k_over_4_mib:
        WriteFile(path, std::string(5 * 1024 * 1024, '#'));
        return "larger than 4 MiB (5242880 bytes)";
    }
    return "";
  }

  // Runs |calls| in a child whose standard error goes to a file, bounded in
  // time and memory; what the child reported ("" when all went well).
  std::string InChild(const std::function<std::string(CK_FUNCTION_LIST*)>& calls) const {
    const std::filesystem::path log = temp_ / "stderr.log";
    std::filesystem::remove(log);
    ChildOptions options;
    options.alarm_seconds = 30;
    return RunInChild(
        [&]() -> std::string {
#ifndef __SANITIZE_ADDRESS__
          // The sanitizer reserves terabytes of address space for itself.
          const rlimit one_gigabyte{1ull << 30, 1ull << 30};
          if (setrlimit(RLIMIT_AS, &one_gigabyte) != 0) return "setrlimit failed";
#endif
          const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
          if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) return "no log file";
          close(fd);
          LoadedModule module;
          return calls(module.get());
        },
        options);
  }

  // The lines the module wrote in the last child that name |path|.
  std::vector<std::string> LinesNaming(const std::filesystem::path& path) const {
    std::vector<std::string> lines;
    const Bytes bytes = ReadFileBytes(temp_ / "stderr.log");
    std::istringstream log(std::string(bytes.begin(), bytes.end()));
    for (std::string line; std::getline(log, line);)
      if (line.find(path.string()) != std::string::npos) lines.push_back(line);
    return lines;
  }

  // Initialises, finds |client|'s certificate and, when |authorities| is
  // not negative, that many CA certificates; finalises.
  static std::string InitialiseAndList(CK_FUNCTION_LIST* f, const InstalledClient& client,
                                       int authorities, int listings = 1) {
    if (f->C_Initialize(nullptr) != CKR_OK) return "C_Initialize failed";
    CK_SESSION_HANDLE session = 0;
    if (f->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK)
      return "C_OpenSession failed";
    auto count = [&](std::vector<CK_ATTRIBUTE> templ) -> CK_ULONG {
      CK_OBJECT_HANDLE found[16];
      CK_ULONG many = 0;
      if (f->C_FindObjectsInit(session, templ.data(), templ.size()) != CKR_OK ||
          f->C_FindObjects(session, found, 16, &many) != CKR_OK ||
          f->C_FindObjectsFinal(session) != CKR_OK)
        return 99;
      return many;
    };
    CK_OBJECT_CLASS certificate = CKO_CERTIFICATE;
    CK_ULONG category = 2;
    for (int i = 0; i < listings; ++i) {
      if (count({{CKA_CLASS, &certificate, sizeof(certificate)},
                 {CKA_ID, const_cast<unsigned char*>(client.thumbprint.data()),
                  client.thumbprint.size()}}) != 1)
        return "the certificate was not found";
      if (authorities >= 0 && count({{CKA_CLASS, &certificate, sizeof(certificate)},
                                     {CKA_CERTIFICATE_CATEGORY, &category, sizeof(category)}}) !=
                                  static_cast<CK_ULONG>(authorities))
        return "not " + std::to_string(authorities) + " CA certificates";
    }
    if (f->C_Finalize(nullptr) != CKR_OK) return "C_Finalize failed";
    return "";
  }

  void SettingsFileIsSkipped(Planted kind) {
    const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
    const std::filesystem::path conf = temp_ / "pkcs11.conf";
    const std::string reason = Plant(kind, conf);
    setenv("X509AUTH_PKCS11_CONF", conf.c_str(), 1);
    EXPECT_EQ(InChild([&](CK_FUNCTION_LIST* f) { return InitialiseAndList(f, alice, 2); }), "");
    EXPECT_EQ(LinesNaming(conf),
              std::vector<std::string>{"x509auth-pkcs11: [error] settings file " + conf.string() +
                                       " skipped: " + reason + "; defaults used"});
  }

  void CaFileIsSkipped(Planted kind) {
    const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
    const std::filesystem::path planted = temp_ / "planted-cas.pem";
    const std::string reason = Plant(kind, planted);
    setenv("X509AUTH_CA_FILES", (planted.string() + ":" + CasFile().string()).c_str(), 1);
    // The CA file after the planted one still gives the chain.
    EXPECT_EQ(InChild([&](CK_FUNCTION_LIST* f) { return InitialiseAndList(f, alice, 2); }), "");
    EXPECT_EQ(LinesNaming(planted),
              std::vector<std::string>{"x509auth-pkcs11: [error] CA file " + planted.string() +
                                       " skipped: " + reason});
  }
};

TEST_F(Pkcs11PlantedFilesTest, ASettingsFileThatIsAFifoIsSkippedWithOneLineAndDefaultsUsed) {
  SettingsFileIsSkipped(Planted::k_fifo);
}

TEST_F(Pkcs11PlantedFilesTest, ASettingsFileThatIsDevZeroIsSkippedWithOneLineAndDefaultsUsed) {
  SettingsFileIsSkipped(Planted::k_dev_zero);
}

TEST_F(Pkcs11PlantedFilesTest, ASettingsFileOver4MiBIsSkippedWithOneLineAndDefaultsUsed) {
  SettingsFileIsSkipped(Planted::k_over_4_mib);
}

TEST_F(Pkcs11PlantedFilesTest, ACaFileThatIsAFifoIsSkippedWithOneLineAndTheOthersUsed) {
  CaFileIsSkipped(Planted::k_fifo);
}

TEST_F(Pkcs11PlantedFilesTest, ACaFileThatIsDevZeroIsSkippedWithOneLineAndTheOthersUsed) {
  CaFileIsSkipped(Planted::k_dev_zero);
}

TEST_F(Pkcs11PlantedFilesTest, ACaFileOver4MiBIsSkippedWithOneLineAndTheOthersUsed) {
  CaFileIsSkipped(Planted::k_over_4_mib);
}

TEST_F(Pkcs11PlantedFilesTest, AKeyFileThatIsAFifoOrDevZeroIsSkippedOnceAndItsCertificateListed) {
  const InstalledClient& alice = Install(KeyKind::k_rsa, "Alice");
  const InstalledClient& bob = Install(KeyKind::k_ec, "Bob");
  const std::string fifo_reason = Plant(Planted::k_fifo, alice.key_file);
  const std::string zero_reason = Plant(Planted::k_dev_zero, bob.key_file);
  // Three listings; each refusal is said once.
  EXPECT_EQ(InChild([&](CK_FUNCTION_LIST* f) {
              const std::string alice_listed = InitialiseAndList(f, alice, -1, 3);
              return alice_listed.empty() ? InitialiseAndList(f, bob, -1) : alice_listed;
            }),
            "");
  EXPECT_EQ(LinesNaming(alice.key_file),
            std::vector<std::string>{"x509auth-pkcs11: [warning] key file " +
                                     alice.key_file.string() + " skipped: " + fifo_reason});
  EXPECT_EQ(LinesNaming(bob.key_file),
            std::vector<std::string>{"x509auth-pkcs11: [warning] key file " +
                                     bob.key_file.string() + " skipped: " + zero_reason});
}

}  // namespace
}  // namespace x509auth_test
