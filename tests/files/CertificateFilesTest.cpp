#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "ForkedChild.h"
#include "RecordedCallbacksTest.h"
#include "SparseFile.h"
#include "TestPki.h"
#include "base/SafeCallbacksWrapper.h"
#include "files/CertificateFiles.h"

namespace quorvant::shared::x509 {
namespace {

using namespace x509auth_test;
using test::MakeSparseFile;

class CertificateFilesTest : public RecordedCallbacksTest {
 protected:
  void SetUp() override {
    key_ = SharedKey(KeyKind::k_rsa);
    CertOptions first;
    first.common_name = "First";
    cert_ = MakeCert(first, key_.get());
    CertOptions second;
    second.common_name = "Second";
    other_ = MakeCert(second, key_.get());
  }
  static bool Same(const X509Ptr& read, X509* expected) {
    return read && X509_cmp(read.get(), expected) == 0;
  }

  TempDir dir_;
  TestKey key_;
  TestX509 cert_;
  TestX509 other_;
};

// ---- GetThumbprintForX509Cert ----

TEST_F(CertificateFilesTest, ThumbprintIsTheSha1OfTheDerEncoding) {
  const Bytes der = CertToDer(cert_.get());
  unsigned char expected[EVP_MAX_MD_SIZE];
  unsigned int expected_length = 0;
  ASSERT_EQ(EVP_Digest(der.data(), der.size(), expected, &expected_length, EVP_sha1(), nullptr), 1);
  ASSERT_EQ(expected_length, 20u);

  Thumbprint thumbprint{};
  ASSERT_TRUE(GetThumbprintForX509Cert(cert_.get(), &thumbprint));
  EXPECT_EQ(Bytes(thumbprint.begin(), thumbprint.end()),
            Bytes(expected, expected + expected_length));
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(CertificateFilesTest, ThumbprintsOfDifferentCertificatesDiffer) {
  Thumbprint a{}, b{};
  ASSERT_TRUE(GetThumbprintForX509Cert(cert_.get(), &a));
  ASSERT_TRUE(GetThumbprintForX509Cert(other_.get(), &b));
  EXPECT_NE(a, b);
}

TEST_F(CertificateFilesTest, ThumbprintFailureLeavesOutputUntouchedAndLogsNothing) {
  // An empty X509 cannot be encoded, so X509_digest fails.
  TestX509 empty(X509_new());
  Thumbprint thumbprint;
  thumbprint.fill(0xA5);
  EXPECT_FALSE(GetThumbprintForX509Cert(empty.get(), &thumbprint));
  for (unsigned char byte : thumbprint) EXPECT_EQ(byte, 0xA5);
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

// ---- file readers ----

TEST_F(CertificateFilesTest, PemFileIsReadByPemReaderAndCombinedReader) {
  WriteFile(dir_ / "c.pem", CertToPem(cert_.get()));
  EXPECT_TRUE(Same(ReadX509FromPemFile(dir_ / "c.pem"), cert_.get()));
  EXPECT_TRUE(Same(ReadX509FromDerOrPemFile(dir_ / "c.pem"), cert_.get()));
  EXPECT_FALSE(ReadX509FromDerFile(dir_ / "c.pem"));
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(CertificateFilesTest, PemCertificateFollowedByGarbageYieldsThePemCertificate) {
  WriteFile(dir_ / "c.pem", CertToPem(cert_.get()) + "\x01\x02 garbage \xff\n-----BEGIN junk");
  EXPECT_TRUE(Same(ReadX509FromPemFile(dir_ / "c.pem"), cert_.get()));
  EXPECT_TRUE(Same(ReadX509FromDerOrPemFile(dir_ / "c.pem"), cert_.get()));
}

TEST_F(CertificateFilesTest, TextBeforeThePemBlockIsSkipped) {
  WriteFile(dir_ / "c.pem", "Subject: First\nsome explanatory text\n" + CertToPem(cert_.get()));
  EXPECT_TRUE(Same(ReadX509FromDerOrPemFile(dir_ / "c.pem"), cert_.get()));
}

TEST_F(CertificateFilesTest, PemBundleYieldsOnlyTheFirstCertificate) {
  WriteFile(dir_ / "bundle.pem", CertToPem(cert_.get()) + CertToPem(other_.get()));
  EXPECT_TRUE(Same(ReadX509FromPemFile(dir_ / "bundle.pem"), cert_.get()));
  EXPECT_TRUE(Same(ReadX509FromDerOrPemFile(dir_ / "bundle.pem"), cert_.get()));
}

TEST_F(CertificateFilesTest, DerFileFailsAsPemAndIsReadAsDer) {
  WriteFile(dir_ / "c.der", CertToDer(cert_.get()));
  EXPECT_FALSE(ReadX509FromPemFile(dir_ / "c.der"));
  EXPECT_TRUE(Same(ReadX509FromDerFile(dir_ / "c.der"), cert_.get()));
  EXPECT_TRUE(Same(ReadX509FromDerOrPemFile(dir_ / "c.der"), cert_.get()));
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(CertificateFilesTest, EmptyFileYieldsEmptyHandleFromEveryReader) {
  WriteFile(dir_ / "empty", std::string());
  EXPECT_FALSE(ReadX509FromPemFile(dir_ / "empty"));
  EXPECT_FALSE(ReadX509FromDerFile(dir_ / "empty"));
  EXPECT_FALSE(ReadX509FromDerOrPemFile(dir_ / "empty"));
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(CertificateFilesTest, MissingFileYieldsEmptyHandleAndNoLogLine) {
  EXPECT_FALSE(ReadX509FromPemFile(dir_ / "missing"));
  EXPECT_FALSE(ReadX509FromDerFile(dir_ / "missing"));
  EXPECT_FALSE(ReadX509FromDerOrPemFile(dir_ / "missing"));
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(CertificateFilesTest, TruncatedDerYieldsEmptyHandle) {
  Bytes der = CertToDer(cert_.get());
  der.resize(der.size() / 2);
  WriteFile(dir_ / "c.der", der);
  EXPECT_FALSE(ReadX509FromDerFile(dir_ / "c.der"));
  EXPECT_FALSE(ReadX509FromDerOrPemFile(dir_ / "c.der"));
}

TEST_F(CertificateFilesTest, DerWithTrailingBytesYieldsTheCertificate) {
  Bytes der = CertToDer(cert_.get());
  der.insert(der.end(), {0xde, 0xad, 0xbe, 0xef});
  WriteFile(dir_ / "c.der", der);
  EXPECT_TRUE(Same(ReadX509FromDerOrPemFile(dir_ / "c.der"), cert_.get()));
}

TEST_F(CertificateFilesTest, PemWithCorruptBodyYieldsEmptyHandle) {
  std::string pem = CertToPem(cert_.get());
  // Damage the base64 body inside the armour.
  const std::size_t body = pem.find('\n') + 1;
  pem.replace(body + 10, 40, std::string(40, '*'));
  WriteFile(dir_ / "c.pem", pem);
  EXPECT_FALSE(ReadX509FromPemFile(dir_ / "c.pem"));
  EXPECT_FALSE(ReadX509FromDerOrPemFile(dir_ / "c.pem"));
}

TEST_F(CertificateFilesTest, RandomGarbageYieldsEmptyHandle) {
  WriteFile(dir_ / "garbage", std::string("\x30\x82\xff\xff not a certificate at all", 30));
  EXPECT_FALSE(ReadX509FromDerOrPemFile(dir_ / "garbage"));
}

TEST_F(CertificateFilesTest, DirectoryYieldsEmptyHandleWithoutExceptionOrLog) {
  // Seeking to the end of a directory reports a huge size on ext4; the reader
  // must refuse it rather than allocate or throw.
  std::filesystem::create_directories(dir_ / "certs.d");
  X509Ptr pem, der, any;
  EXPECT_NO_THROW(pem = ReadX509FromPemFile(dir_ / "certs.d"));
  EXPECT_NO_THROW(der = ReadX509FromDerFile(dir_ / "certs.d"));
  EXPECT_NO_THROW(any = ReadX509FromDerOrPemFile(dir_ / "certs.d"));
  EXPECT_FALSE(pem);
  EXPECT_FALSE(der);
  EXPECT_FALSE(any);
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

// What each reader and the reporting overload make of |path|: "cert" or
// "none" for each, then the refusal's text.
std::string ReadEveryWay(const std::filesystem::path& path) {
  std::string report;
  report += ReadX509FromPemFile(path) ? "cert " : "none ";
  report += ReadX509FromDerFile(path) ? "cert " : "none ";
  report += ReadX509FromDerOrPemFile(path) ? "cert " : "none ";
  x509auth_common::RegularFile::Refusal refusal = x509auth_common::RegularFile::Refusal::k_none;
  std::string reason = "unchanged";
  report += ReadX509FromDerOrPemFile(path, &refusal, &reason) ? "cert" : "none";
  report += refusal == x509auth_common::RegularFile::Refusal::k_none ? "" : " [" + reason + "]";
  return report;
}

TEST_F(CertificateFilesTest, FifoIsRefusedByEveryReaderWithoutWaitingForAWriter) {
  // Opening a FIFO for reading waits for a writer, and none comes: the
  // readers run in a child whose alarm would end such a wait.
  const std::filesystem::path fifo = dir_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(x509auth_test::RunInChild([&] { return ReadEveryWay(fifo); }, {false, 20}),
            "none none none none [not a regular file]");
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(CertificateFilesTest, LinkToDevZeroIsRefusedByEveryReader) {
  std::filesystem::create_symlink("/dev/zero", dir_ / "zero.pem");
  EXPECT_EQ(x509auth_test::RunInChild([&] { return ReadEveryWay(dir_ / "zero.pem"); }, {false, 20}),
            "none none none none [not a regular file]");
}

TEST_F(CertificateFilesTest, TwoGigabyteFileIsRefusedByEveryReaderWithItsSize) {
  MakeSparseFile(dir_ / "huge.pem", 2LL * 1024 * 1024 * 1024);
  EXPECT_EQ(ReadEveryWay(dir_ / "huge.pem"),
            "none none none none [larger than 4 MiB (2147483648 bytes)]");
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(CertificateFilesTest, FileOfExactlyFourMebibytesIsReadAndOneByteMoreIsRefused) {
  const std::string pem = CertToPem(cert_.get());
  std::string content = pem + std::string(x509auth_common::k_max_file_bytes - pem.size(), '\n');
  WriteFile(dir_ / "padded.pem", content);
  EXPECT_EQ(ReadEveryWay(dir_ / "padded.pem"), "cert none cert cert");
  EXPECT_TRUE(Same(ReadX509FromDerOrPemFile(dir_ / "padded.pem"), cert_.get()));
  content += '\n';
  WriteFile(dir_ / "padded.pem", content);
  EXPECT_EQ(ReadEveryWay(dir_ / "padded.pem"),
            "none none none none [larger than 4 MiB (4194305 bytes)]");
}

TEST_F(CertificateFilesTest, MissingFileIsReportedWithTheSystemsReasonAndErrno) {
  x509auth_common::RegularFile::Refusal refusal = x509auth_common::RegularFile::Refusal::k_none;
  std::string reason;
  errno = 0;
  EXPECT_FALSE(ReadX509FromDerOrPemFile(dir_ / "missing.pem", &refusal, &reason));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(refusal, x509auth_common::RegularFile::Refusal::k_open_failed);
  EXPECT_EQ(reason, std::strerror(ENOENT));
}

// ---- ConvertPemDataToDer ----

Bytes AsBytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

TEST_F(CertificateFilesTest, ConvertPemBundleReplacesLongerOutputWithFirstCertificateDer) {
  const Bytes pem = AsBytes(CertToPem(cert_.get()) + CertToPem(other_.get()));
  std::vector<unsigned char> der(5000, 0xAA);
  ASSERT_TRUE(ConvertPemDataToDer(pem.data(), pem.size(), der));
  EXPECT_EQ(der, CertToDer(cert_.get()));
  EXPECT_TRUE(rec().Logs().empty()) << rec().Dump();
}

TEST_F(CertificateFilesTest, ConvertPemReplacesShorterOutputWithTheDer) {
  const Bytes pem = AsBytes(CertToPem(cert_.get()));
  std::vector<unsigned char> der{1, 2, 3};
  ASSERT_TRUE(ConvertPemDataToDer(pem.data(), pem.size(), der));
  EXPECT_EQ(der, CertToDer(cert_.get()));
}

TEST_F(CertificateFilesTest, ConvertPemOverwritesOutputOfEqualLength) {
  const Bytes pem = AsBytes(CertToPem(cert_.get()));
  const Bytes expected = CertToDer(cert_.get());
  std::vector<unsigned char> der(expected.size(), 0x55);
  ASSERT_TRUE(ConvertPemDataToDer(pem.data(), pem.size(), der));
  EXPECT_EQ(der, expected);
}

TEST_F(CertificateFilesTest, ConvertUnparsablePemLeavesOutputAndLogsOneWarning) {
  const Bytes pem =
      AsBytes("-----BEGIN CERTIFICATE-----\nnot base64 !!\n-----END CERTIFICATE-----\n");
  const std::vector<unsigned char> original{9, 8, 7, 6};
  std::vector<unsigned char> der = original;
  EXPECT_FALSE(ConvertPemDataToDer(pem.data(), pem.size(), der));
  EXPECT_EQ(der, original);
  ASSERT_EQ(rec().Logs().size(), 1u) << rec().Dump();
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "Unable to convert PEM to DER",
                        "Unable to convert PEM to DER"));
}

TEST_F(CertificateFilesTest, ConvertDerInputFailsAndLeavesTheOpenSslQueueUndrained) {
  const Bytes input = CertToDer(cert_.get());
  std::vector<unsigned char> der;
  EXPECT_FALSE(ConvertPemDataToDer(input.data(), input.size(), der));
  EXPECT_TRUE(der.empty());
  ASSERT_EQ(rec().Logs().size(), 1u) << rec().Dump();
  EXPECT_EQ(rec().Logs()[0].priority, X509_Auth_LogPriority_Warning);
  EXPECT_NE(ERR_peek_last_error(), 0u);
}

TEST_F(CertificateFilesTest, ConvertEmptyInputFails) {
  const unsigned char nothing[1] = {0};
  std::vector<unsigned char> der{1};
  EXPECT_FALSE(ConvertPemDataToDer(nothing, 0, der));
  EXPECT_EQ(der, std::vector<unsigned char>{1});
  EXPECT_TRUE(rec().Has(X509_Auth_LogPriority_Warning, "Unable to convert PEM to DER",
                        "Unable to convert PEM to DER"));
}

TEST_F(CertificateFilesTest, ConvertReadsOnlyTheGivenLength) {
  // The length cuts the text inside the first certificate, so nothing parses
  // even though the buffer holds a whole certificate.
  const Bytes pem = AsBytes(CertToPem(cert_.get()));
  std::vector<unsigned char> der;
  EXPECT_FALSE(ConvertPemDataToDer(pem.data(), pem.size() / 2, der));
  EXPECT_TRUE(der.empty());
}

}  // namespace
}  // namespace quorvant::shared::x509
