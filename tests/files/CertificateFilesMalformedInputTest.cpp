// Lengths OpenSSL cannot take as given: the conversion never reads past the
// bytes it was handed.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "RecordingCallbacks.h"
#include "TestPki.h"
#include "base/SafeCallbacksWrapper.h"
#include "files/CertificateFiles.h"

namespace quorvant::shared::x509 {
namespace {

using x509auth_test::Bytes;
using x509auth_test::RecordingCallbacks;

class CertificateFilesMalformedInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RecordingCallbacks::GetInstance().Reset();
    SafeCallbacksWrapper::GetInstance().Replace(RecordingCallbacks::GetInstance().Callbacks());
  }
};

// The text is a whole certificate followed by a NUL: were the length taken
// as OpenSSL's "up to the NUL", the conversion would succeed.
TEST_F(CertificateFilesMalformedInputTest, LengthNegativeAsAnIntIsRefusedWithoutReading) {
  const x509auth_test::Chain chain = x509auth_test::MakeChain(x509auth_test::KeyKind::k_ec);
  const std::string text = x509auth_test::CertToPem(chain.leaf.get());
  Bytes pem(text.begin(), text.end());
  pem.push_back(0);
  for (const std::uint64_t length :
       {std::uint64_t{0xFFFFFFFF}, std::uint64_t{0x80000000}, std::uint64_t{0x1FFFFFFFF}}) {
    RecordingCallbacks::GetInstance().Reset();
    std::vector<unsigned char> der{7};
    EXPECT_FALSE(ConvertPemDataToDer(pem.data(), length, der)) << length;
    EXPECT_EQ(der, std::vector<unsigned char>{7});
    EXPECT_TRUE(RecordingCallbacks::GetInstance().Has(X509_Auth_LogPriority_Warning,
                                                      "Unable to convert PEM to DER",
                                                      "Unable to convert PEM to DER"));
  }
}

// A length above 32 bits whose low half is the text's length still reads
// just the text, as the cut to 32 bits has always done.
TEST_F(CertificateFilesMalformedInputTest, LengthAbove32BitsIsCutToItsLowHalf) {
  const x509auth_test::Chain chain = x509auth_test::MakeChain(x509auth_test::KeyKind::k_ec);
  const std::string text = x509auth_test::CertToPem(chain.leaf.get());
  const Bytes pem(text.begin(), text.end());
  std::vector<unsigned char> der;
  ASSERT_TRUE(ConvertPemDataToDer(pem.data(), (std::uint64_t{1} << 32) + pem.size(), der));
  EXPECT_EQ(der, x509auth_test::CertToDer(chain.leaf.get()));
}

}  // namespace
}  // namespace quorvant::shared::x509
