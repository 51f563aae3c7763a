// The PKCS#11 module in a long-lived process while the card comes and goes,
// alone and beside OpenSC's own module in the same process (as a browser
// loads both): the card's certificate and key come and go as OpenSC's do.
// With the card in, the module shows three certificates: the card's and the
// two CAs of its chain; without it, none.
#include "RigLongLivedFixture.h"

namespace x509auth_test {
namespace {

TEST_F(RigLongLivedTest, ModuleInALongLivedProcessFollowsTheCard) {
  auto loop = StartModuleLoop(false);
  std::size_t at = WaitAfter(*loop, "round 2 x509auth slots=1 certs=0", 0);
  ASSERT_NE(at, std::string::npos) << loop->Output();
  ASSERT_NO_FATAL_FAILURE(InsertPullAndInsert(*loop, &at));
  // The card took the login its PIN made: the program logs in again.
  at = WaitAfter(*loop, "x509auth slots=1 certs=3 sign=ok logins=2", at);
  ASSERT_NE(at, std::string::npos) << loop->Output();
  EXPECT_EQ(Stop(*loop), 0) << loop->Output();
}

TEST_F(RigLongLivedTest, ModuleBesideOpenScsOwnModuleFollowsTheCardAsOpenScDoes) {
  auto loop = StartModuleLoop(true);
  std::size_t at = WaitAfter(*loop, "round 2 opensc", 0);
  ASSERT_NE(at, std::string::npos) << loop->Output();
  ASSERT_NO_FATAL_FAILURE(InsertPullAndInsert(*loop, &at));
  at = WaitAfter(*loop, "x509auth slots=1 certs=3 sign=ok logins=2", at);
  ASSERT_NE(at, std::string::npos) << loop->Output();
  // OpenSC's module, in the same rounds, saw the card back too.
  EXPECT_NE(WaitAfter(*loop, "opensc slots=1 certs=1", at), std::string::npos) << loop->Output();
  EXPECT_EQ(Stop(*loop), 0) << loop->Output();
}

}  // namespace
}  // namespace x509auth_test
