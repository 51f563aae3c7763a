// PKCS#11 modules that load as files but fail as modules: no
// C_GetFunctionList, or a C_Initialize that fails. The context reports the
// failed load once and then behaves as a context without slots.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SmartcardTest.h"
#include "SoftHsmToken.h"
#include "smartcard/Libp11Context.h"

namespace x509auth_test {
namespace {

using quorvant::shared::x509::Libp11Context;

constexpr const char* k_started = "Libp11Context::GetCerts started.";
constexpr const char* k_slot_null =
    "Libp11Context::GetCerts pcks11_slot is null returning 0.Not nececarily a problem can just "
    "mean that there are no cards plugged in";

class FaultyModuleTest : public SmartcardTest {
 protected:
  void ExpectLoadFailsOnceAndNoSlotsFollow(const char* module) {
    SoftHsmToken::Options options;
    options.module_link_target = module;
    SoftHsmToken hsm(options);
    std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
    std::vector<Libp11Context::Libp11CertAndSlot> certs;
    EXPECT_EQ(context->GetCerts(certs), 0);
    EXPECT_EQ(context->GetCerts(certs), 0);
    EXPECT_TRUE(certs.empty());
    EXPECT_TRUE(context->IsInitialised());
    EXPECT_FALSE(context->IsModuleLoaded());
    const LogLines expected = {
        {0, k_started, k_started},
        {3, "unable to load PKCS11_CTX [%i]", "unable to load PKCS11_CTX [-1]"},
        {0, k_slot_null, k_slot_null},
        {0, k_started, k_started},
        {0, k_slot_null, k_slot_null}};
    EXPECT_EQ(OwnLogLines(), expected) << rec().Dump();
    context.reset();
  }
};

TEST_F(FaultyModuleTest, ModuleWithoutGetFunctionListIsReportedAsAFailedLoad) {
  ExpectLoadFailsOnceAndNoSlotsFollow(FAULT_MODULE_NO_FUNCTION_LIST);
}

TEST_F(FaultyModuleTest, ModuleWhoseInitializeFailsIsReportedAsAFailedLoad) {
  ExpectLoadFailsOnceAndNoSlotsFollow(FAULT_MODULE_INITIALIZE_FAILS);
}

}  // namespace
}  // namespace x509auth_test
