// `x509-auth decrypt` with both paddings and its failures, and `x509-auth
// show` with a stand-in viewer on PATH and with none.
#include <openssl/rsa.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "ToolFixture.h"

namespace x509auth_test {
namespace {

class DecryptShowTest : public ToolFileKeysTest {
 protected:
  DecryptShowTest() : ToolFileKeysTest("Decrypter") {}
};

TEST_F(DecryptShowTest, DecryptsPkcs1AndOaepToStdoutOrFile) {
  const Bytes secret{'s', 'e', 'c', 'r', 'e', 't', 0, 1, 2};
  const std::string thumb = HexOf(Sha1Thumbprint(rsa_cert_.get()));
  const std::pair<const char*, int> paddings[] = {{"pkcs1", RSA_PKCS1_PADDING},
                                                  {"oaep", RSA_PKCS1_OAEP_PADDING}};
  for (const auto& [name, padding] : paddings) {
    const Bytes ciphertext = EncryptToCertificate(rsa_cert_.get(), padding, secret);
    WriteFile(temp_ / "cipher.bin", ciphertext);
    ToolRun to_stdout({"--dir", Base("b").string(), "decrypt", thumb, "--padding", name});
    to_stdout.input.assign(ciphertext.begin(), ciphertext.end());
    const ToolResult result = RunTool(to_stdout);
    ASSERT_EQ(result.status, 0) << name << ": " << result.err;
    EXPECT_EQ(Bytes(result.out.begin(), result.out.end()), secret) << name;

    const ToolResult to_file =
        RunTool({"--dir", Base("b").string(), "decrypt", thumb, "--padding", name, "--in",
                 (temp_ / "cipher.bin").string(), "--out", (temp_ / "plain.bin").string()});
    ASSERT_EQ(to_file.status, 0) << to_file.err;
    EXPECT_EQ(ReadFileBytes(temp_ / "plain.bin"), secret);
    EXPECT_NE(to_file.err.find("decrypted 9 bytes to"), std::string::npos) << to_file.err;
  }
  // The plaintext file the tool made is its owner's alone, whatever the umask.
  EXPECT_EQ(std::filesystem::status(temp_ / "plain.bin").permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(DecryptShowTest, DecryptFailuresGiveTheResultCodeAndItsMeaning) {
  // A padding PKCS#1 v1.5 decryption refuses: the key operation fails.
  const Bytes ciphertext = CiphertextWithBadPkcs1Padding(rsa_cert_.get());
  ToolRun wrong({"--dir", Base("b").string(), "decrypt", HexOf(Sha1Thumbprint(rsa_cert_.get())),
                 "--padding", "pkcs1"});
  wrong.input.assign(ciphertext.begin(), ciphertext.end());
  const ToolResult failed = RunTool(wrong);
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(
      ToolLines(failed.err)
          .back()
          .rfind("x509-auth: decrypting with Decrypter RSA failed: result code 1 (the private-key "
                 "operation failed)",
                 0),
      0u)
      << failed.err;
  // An EC key cannot decrypt.
  ToolRun ec({"--dir", Base("b").string(), "decrypt", HexOf(Sha1Thumbprint(ec_cert_.get())),
              "--padding", "oaep"});
  ec.input = "whatever";
  const ToolResult ec_result = RunTool(ec);
  EXPECT_EQ(ec_result.status, 1);
  EXPECT_NE(
      ToolLines(ec_result.err).back().find("decrypting with Decrypter EC failed: result code"),
      std::string::npos)
      << ec_result.err;
  // --padding is required.
  const ToolResult usage = RunTool({"decrypt", "abcdef"});
  EXPECT_EQ(usage.status, 2);
  EXPECT_NE(usage.err.find("--padding"), std::string::npos) << usage.err;
}

TEST_F(DecryptShowTest, ShowStartsTheViewerFoundOnPathWithTheCertificate) {
  const std::filesystem::path bin = temp_ / "bin";
  const std::filesystem::path record = temp_ / "viewer-args";
  std::filesystem::create_directories(bin);
  // A stand-in viewer: records the file it was given, and that file's text.
  WriteFile(bin / "gcr-viewer", "#!/bin/sh\ncat \"$1\" > '" + record.string() + ".tmp' && mv '" +
                                    record.string() + ".tmp' '" + record.string() + "'\n");
  chmod((bin / "gcr-viewer").c_str(), 0755);
  ToolRun run({"--dir", Base("b").string(), "show", HexOf(Sha1Thumbprint(ec_cert_.get()))});
  run.env["PATH"] = bin.string() + ":/usr/bin:/bin";
  run.env["DISPLAY"] = ":99";
  const ToolResult result = RunTool(run);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.err.find("opened Decrypter EC in gcr-viewer"), std::string::npos) << result.err;
  for (int i = 0; i < 100 && !std::filesystem::exists(record); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::ifstream in(record);
  const std::string shown((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(shown, CertToPem(ec_cert_.get()));
}

TEST_F(DecryptShowTest, ShowWithoutAViewerOnPathFailsBeforeTryingIt) {
  ToolRun run({"--dir", Base("b").string(), "show", HexOf(Sha1Thumbprint(ec_cert_.get()))});
  run.env["PATH"] = (temp_ / "empty-bin").string();
  run.env["DISPLAY"] = ":99";
  const ToolResult result = RunTool(run);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "x509-auth: the certificate viewer gcr-viewer is not installed or not on PATH (Debian "
            "package gcr)\n");
}

TEST_F(DecryptShowTest, ShowWithoutADisplayFailsBeforeStartingTheViewer) {
  env_.Unset("DISPLAY");
  env_.Unset("WAYLAND_DISPLAY");
  const std::filesystem::path bin = temp_ / "bin";
  std::filesystem::create_directories(bin);
  WriteFile(bin / "gcr-viewer", "#!/bin/sh\ntouch '" + (temp_ / "started").string() + "'\n");
  chmod((bin / "gcr-viewer").c_str(), 0755);
  ToolRun run({"--dir", Base("b").string(), "show", HexOf(Sha1Thumbprint(ec_cert_.get()))});
  run.env["PATH"] = bin.string() + ":/usr/bin:/bin";
  const ToolResult result = RunTool(run);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err.rfind("x509-auth: there is no display to show a window on", 0), 0u)
      << result.err;
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(std::filesystem::exists(temp_ / "started"));
}

}  // namespace
}  // namespace x509auth_test
