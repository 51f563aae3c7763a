// `x509-auth list`: the JSON output against what the C interface returns
// for the same directories, and the human table.
#include <openssl/x509.h>
#include <sys/stat.h>

#include "ToolFixture.h"

namespace x509auth_test {
namespace {

class ListCommandTest : public ToolTest {};

TEST_F(ListCommandTest, JsonEqualsTheCInterfaceForTheSameDirectoriesAndCas) {
  TestKey rsa = SharedKey(KeyKind::k_rsa, 0);
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 rsa_cert = ClientCert("File RSA", rsa.get());
  TestX509 ec_cert = ClientCert("File EC", ec.get());
  InstallFileCert(Base("one"), "rsa.pem", rsa_cert.get(), rsa.get());
  InstallFileCert(Base("two"), "ec.der", ec_cert.get(), ec.get(), /*der=*/true);
  Chain chain = MakeChain(KeyKind::k_ec, "Chained Leaf");
  InstallFileCert(Base("two"), "leaf.pem", chain.leaf.get(), chain.leaf_key.get());
  WriteFile(temp_ / "root.pem", CertToPem(chain.root.get()));
  WriteFile(temp_ / "intermediate.der", CertToDer(chain.intermediate.get()));

  const nlohmann::json listed =
      ListJson({"--dir", Base("one").string(), "--dir", Base("two").string(), "--add-ca",
                (temp_ / "root.pem").string(), "--add-ca", (temp_ / "intermediate.der").string()});
  const nlohmann::json expected =
      CInterfaceRecords({Base("one").string(), Base("two").string()}, {},
                        {CertToDer(chain.root.get()), CertToDer(chain.intermediate.get())});
  ASSERT_EQ(expected.size(), 3u);
  EXPECT_EQ(listed, expected);
  // Exactly the promised keys, and the chain really goes up to the root.
  for (const auto& entry : listed) {
    std::vector<std::string> keys;
    for (const auto& item : entry.items()) keys.push_back(item.key());
    EXPECT_EQ(keys,
              (std::vector<std::string>{"chain", "issuer", "key_algorithm", "key_path", "not_after",
                                        "not_after_iso", "not_before", "not_before_iso", "source",
                                        "subject", "thumbprint"}));
  }
  const auto leaf = std::find_if(listed.begin(), listed.end(),
                                 [](const auto& e) { return e["subject"] == "Chained Leaf"; });
  ASSERT_NE(leaf, listed.end());
  EXPECT_EQ((*leaf)["chain"].size(), 3u);
  EXPECT_EQ((*leaf)["chain"][2], HexOf(Sha1Thumbprint(chain.root.get())));
  EXPECT_EQ((*leaf)["key_algorithm"], "ec");
  EXPECT_EQ((*leaf)["source"], "file");
  EXPECT_EQ((*leaf)["key_path"], (Base("two") / "keys" / "leaf.pem.key").string());
}

TEST_F(ListCommandTest, WithoutDirectoriesLooksInHomeDotX509Auth) {
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 cert = ClientCert("Home Cert", ec.get());
  InstallFileCert(home_ / ".x509-auth", "home.pem", cert.get(), ec.get());
  const nlohmann::json listed = ListJson({});
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0]["subject"], "Home Cert");
  EXPECT_EQ(listed, CInterfaceRecords({}, {".x509-auth"}));
}

TEST_F(ListCommandTest, HomeDirAndRelativeDirAreBothHonoured) {
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestX509 a = ClientCert("Relative Dir", ec.get());
  TestX509 b = ClientCert("Home Dir", ec.get());
  InstallFileCert(work_ / "rel", "a.pem", a.get(), ec.get());
  InstallFileCert(home_ / "mine", "b.pem", b.get(), ec.get());
  // "rel" is relative to the working directory the tool was started in.
  const nlohmann::json listed = ListJson({"--dir", "rel", "--home-dir", "mine"});
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed, CInterfaceRecords({(work_ / "rel").string()}, {"mine"}));
}

TEST_F(ListCommandTest, TableIsAlignedWithShortThumbprintsAndNoColourOffATerminal) {
  TestKey ec = SharedKey(KeyKind::k_ec, 0);
  TestKey rsa = SharedKey(KeyKind::k_rsa, 0);
  TestX509 first = ClientCert("First", ec.get(), "", "20401231120000Z");
  TestX509 second = ClientCert("A Much Longer Subject Name", rsa.get());
  InstallFileCert(Base("b"), "first.pem", first.get(), ec.get());
  InstallFileCert(Base("b"), "second.pem", second.get(), rsa.get());

  const ToolResult result = RunTool({"--dir", Base("b").string(), "list"});
  ASSERT_EQ(result.status, 0) << result.err;
  const std::vector<std::string> lines = Lines(result.out);
  ASSERT_EQ(lines.size(), 3u) << result.out;
  EXPECT_EQ(lines[0].rfind("THUMBPRINT    SUBJECT", 0), 0u) << lines[0];
  // Every column starts at the same offset on every line.
  for (const char* heading : {"SUBJECT", "ISSUER", "SOURCE", "KEY", "EXPIRES"}) {
    const std::size_t column = lines[0].find(heading);
    for (const std::string& line : lines) {
      EXPECT_NE(line[column], ' ') << heading << ": " << line;
      EXPECT_EQ(line.substr(column - 2, 2), "  ") << heading << ": " << line;
    }
  }
  const std::string row = lines[1].find("First") != std::string::npos ? lines[1] : lines[2];
  EXPECT_EQ(row.rfind(HexOf(Sha1Thumbprint(first.get())).substr(0, 12) + "  First", 0), 0u) << row;
  EXPECT_NE(row.find("file    ec   2040-12-31"), std::string::npos) << row;
  EXPECT_EQ(result.out.find('\033'), std::string::npos) << "colour without a terminal";
}

TEST_F(ListCommandTest, NothingOfferedSaysSoAndPointsAtDoctor) {
  std::filesystem::create_directories(Base("empty") / "certs");
  const ToolResult result = RunTool({"--dir", Base("empty").string(), "list"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("No certificate is offered"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("x509-auth doctor"), std::string::npos);
  const ToolResult json = RunTool({"--dir", Base("empty").string(), "list", "--json"});
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(nlohmann::json::parse(json.out), nlohmann::json::array());
}

TEST_F(ListCommandTest, UnreadableCaFileFailsWithOneLine) {
  WriteFile(temp_ / "junk.pem", std::string("-----BEGIN CERTIFICATE-----\nnot base64\n"));
  const ToolResult result =
      RunTool({"--add-ca", (temp_ / "junk.pem").string(), "--dir", Base("b").string(), "list"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("x509-auth: the library did not accept " +
                            (temp_ / "junk.pem").string() + " as a CA certificate"),
            std::string::npos)
      << result.err;
  const ToolResult missing = RunTool({"--add-ca", (temp_ / "none.pem").string(), "list"});
  EXPECT_EQ(missing.status, 2) << missing.err;
  EXPECT_NE(missing.err.find("none.pem"), std::string::npos) << missing.err;
}

TEST_F(ListCommandTest, CaFileThatIsAFifoADeviceOrTooLargeIsRefusedAtOnce) {
  // A FIFO with no writer would block a plain open for ever; the run's time
  // limit ends the test if it does.
  std::filesystem::create_directories(Base("b") / "certs");
  const std::filesystem::path fifo = temp_ / "ca.fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::filesystem::path big = temp_ / "big.pem";
  WriteFile(big, std::string(5 * 1024 * 1024, 'A'));
  const std::pair<std::string, std::string> cases[] = {
      {fifo.string(), "not a regular file"},
      {"/dev/zero", "not a regular file"},
      {big.string(), "larger than 4 MiB (5242880 bytes)"}};
  for (const auto& [path, reason] : cases) {
    for (const char* command : {"list", "doctor"}) {
      ToolRun run{{"--add-ca", path, "--dir", Base("b").string(), command}};
#ifndef __SANITIZE_ADDRESS__
      // Were the file read whole, the limit would stop it before the machine.
      run.shell = "ulimit -v 2000000";
#endif
      const ToolResult result = RunTool(run);
      EXPECT_FALSE(result.timed_out) << path;
      EXPECT_EQ(result.status, 1) << path << ": " << result.err;
      EXPECT_EQ(result.err,
                "x509-auth: cannot read the CA certificate " + path + ": " + reason + "\n")
          << command;
      EXPECT_EQ(result.out, "");
    }
  }
}

TEST_F(ListCommandTest, OutOfMemoryIsSaidInWordsWithWhatTheToolWasDoing) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "AddressSanitizer cannot run under an address-space limit";
#endif
  // A CA file just under the 4 MiB the tool reads: with limits rising from
  // too little to start, some limit leaves room for everything before the
  // file but not for the file. Whatever the limit, no bare "std::bad_alloc".
  std::filesystem::create_directories(Base("b") / "certs");
  const std::filesystem::path ca = temp_ / "large-ca.pem";
  WriteFile(ca, "-----BEGIN CERTIFICATE-----\n" + std::string(4000000, 'A') +
                    "\n-----END CERTIFICATE-----\n");
  bool said = false;
  for (int kib = 8 * 1024; kib <= 96 * 1024 && !said; kib += 256) {
    ToolRun run{{"--module", "none", "--add-ca", ca.string(), "--dir", Base("b").string(), "list"}};
    run.shell = "ulimit -v " + std::to_string(kib);
    const ToolResult result = RunTool(run);
    EXPECT_EQ(result.err.find("x509-auth: std::bad_alloc"), std::string::npos)
        << kib << " KiB: " << result.err;
    said =
        result.err.find("x509-auth: out of memory while running 'list'; nothing more was done") !=
        std::string::npos;
    if (said) {
      EXPECT_EQ(result.status, 1) << kib << " KiB";
      EXPECT_EQ(ToolLines(result.err).size(), 1u) << kib << " KiB: " << result.err;
      EXPECT_EQ(result.out, "");
    }
  }
  EXPECT_TRUE(said) << "no limit ran out of memory at the CA file";
}

}  // namespace
}  // namespace x509auth_test
