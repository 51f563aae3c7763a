#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "SmartcardTest.h"
#include "SoftHsmToken.h"
#include "TestPki.h"
#include "smartcard/Libp11Context.h"

namespace x509auth_test {
namespace {

using quorvant::shared::x509::Libp11Context;
using CertAndSlot = Libp11Context::Libp11CertAndSlot;

constexpr const char* k_started = "Libp11Context::GetCerts started.";
constexpr const char* k_not_found = "PKCS11 shared object not found";
constexpr const char* k_ctx_null = "Libp11Context::GetCerts pcks11_ctx is null returning -1.";
constexpr const char* k_slot_null =
    "Libp11Context::GetCerts pcks11_slot is null returning 0.Not nececarily a problem can just "
    "mean that there are no cards plugged in";
constexpr const char* k_slot_has = "Libp11Context::GetCerts slot has %d certs ";
constexpr const char* k_total = "Libp11Context::GetCerts Total certs returning %d certs ";
constexpr const char* k_enumeration_error =
    "Error enumerating certificates on token [%s]. Error code: [%i]";
constexpr const char* k_load_failed = "unable to load PKCS11_CTX [%i]";

std::string SlotHas(int n) {
  return "Libp11Context::GetCerts slot has " + std::to_string(n) + " certs ";
}
std::string Total(int n) {
  return "Libp11Context::GetCerts Total certs returning " + std::to_string(n) + " certs ";
}
// SoftHSM2's always-present free token has an empty label, and an
// uninitialised token is refused with -1 before libp11 could hang on it.
const std::tuple<int, std::string, std::string> k_free_token_error{
    3, k_enumeration_error, "Error enumerating certificates on token []. Error code: [-1]"};

// The lines of a listing of one token holding |count| certificates, SoftHSM2's
// free token after it.
LogLines OneTokenListing(int count) {
  return {{0, k_started, k_started},
          {1, k_slot_has, SlotHas(count)},
          k_free_token_error,
          {1, k_total, Total(count)}};
}

class Libp11ContextTest : public SmartcardTest {};

TEST_F(Libp11ContextTest, MissingModuleLogsNotFoundOnEveryGetCertsAndReturnsMinusOne) {
  SoftHsmToken::Options options;
  options.module_link_directory = "";
  SoftHsmToken hsm(options);
  ASSERT_EQ(std::filesystem::current_path().string().find("bin"), std::string::npos);
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  std::vector<CertAndSlot> certs;

  EXPECT_EQ(context->GetCerts(certs), -1);
  EXPECT_EQ(context->GetCerts(certs), -1);

  EXPECT_FALSE(context->IsInitialised());
  EXPECT_TRUE(certs.empty());
  const LogLines once = {
      {0, k_started, k_started}, {3, k_not_found, k_not_found}, {2, k_ctx_null, k_ctx_null}};
  LogLines twice = once;
  twice.insert(twice.end(), once.begin(), once.end());
  EXPECT_EQ(OwnLogLines(), twice) << rec().Dump();
}

TEST_F(Libp11ContextTest, LibraryDirectoryTurnsFirstBinOfWorkingDirectoryIntoLib) {
  SoftHsmToken::Options options;
  options.working_directory = "cabinet/bin";
  options.module_link_directory = "";
  SoftHsmToken hsm(options);
  ASSERT_EQ(hsm.Root().string().find("bin"), std::string::npos);

  const std::optional<std::string> directory =
      Libp11Context::LibraryDirectoryFromWorkingDirectory();

  ASSERT_TRUE(directory.has_value());
  // The first "bin" sits inside "cabinet"; only that one is replaced.
  EXPECT_EQ(*directory, (hsm.Root() / "calibet/bin").string());
}

TEST_F(Libp11ContextTest, LibraryDirectoryIsAbsentWithoutBinInWorkingDirectory) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  ASSERT_EQ(hsm.Root().string().find("bin"), std::string::npos);
  EXPECT_FALSE(Libp11Context::LibraryDirectoryFromWorkingDirectory().has_value());
}

TEST_F(Libp11ContextTest, ModuleIsFoundInLibDirectoryBesideBinWorkingDirectory) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken::Options options;
  options.working_directory = "app/bin";
  options.module_link_directory = "app/lib";
  SoftHsmToken hsm(options);
  ASSERT_EQ(hsm.Root().string().find("bin"), std::string::npos);
  ASSERT_FALSE(std::filesystem::exists("./opensc-pkcs11.so"));
  hsm.InitToken("Card A");
  Chain chain = MakeChain(KeyKind::k_rsa, "Bin Leaf");
  hsm.ImportCertAndKey("Card A", chain.leaf.get(), chain.leaf_key.get(), "01", "leaf");
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  std::vector<CertAndSlot> certs;

  EXPECT_EQ(context->GetCerts(certs), 0);

  EXPECT_TRUE(context->IsModuleLoaded());
  ASSERT_EQ(certs.size(), 1u);
  EXPECT_EQ(X509_cmp(certs[0].cert->x509, chain.leaf.get()), 0);
  EXPECT_EQ(rec().IndexOf(k_not_found), -1) << rec().Dump();
}

TEST_F(Libp11ContextTest, FileThatIsNoModuleLeavesContextWithoutSlotsForGood) {
  SoftHsmToken::Options options;
  options.module_link_target = "../not-a-module.so";
  SoftHsmToken hsm(options);
  WriteFile(hsm.Root() / "not-a-module.so", std::string("this is not a shared object\n"));
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  std::vector<CertAndSlot> certs;

  EXPECT_EQ(context->GetCerts(certs), 0);
  EXPECT_EQ(context->GetCerts(certs), 0);

  EXPECT_TRUE(context->IsInitialised());
  EXPECT_FALSE(context->IsModuleLoaded());
  EXPECT_EQ(context->SlotCount(), 0u);
  // The load is tried once; afterwards only the no-slots line appears.
  const LogLines expected = {{0, k_started, k_started},
                             {3, k_load_failed, "unable to load PKCS11_CTX [-1]"},
                             {0, k_slot_null, k_slot_null},
                             {0, k_started, k_started},
                             {0, k_slot_null, k_slot_null}};
  EXPECT_EQ(OwnLogLines(), expected) << rec().Dump();
}

TEST_F(Libp11ContextTest, OpenScModuleWithoutReaderReportsNoCardAndReturnsZero) {
  SoftHsmToken::Options options;
  options.module_link_target = OPENSC_MODULE_PATH;
  SoftHsmToken hsm(options);
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  std::vector<CertAndSlot> certs;

  EXPECT_EQ(context->GetCerts(certs), 0);

  EXPECT_TRUE(context->IsModuleLoaded());
  EXPECT_TRUE(certs.empty());
  // libp11 0.4.12 fails PKCS11_enumerate_slots when the module has no slot
  // at all, so the missing reader shows as an enumeration error before the
  // no-cards line.
  EXPECT_EQ(context->Slots(), nullptr);
  const LogLines expected = {{0, k_started, k_started},
                             {3, "error enumerating slots", "error enumerating slots"},
                             {0, k_slot_null, k_slot_null}};
  EXPECT_EQ(OwnLogLines(), expected) << rec().Dump();
}

TEST_F(Libp11ContextTest, UninitialisedSoftHsmTokenIsReportedAsFailedEnumerationInsteadOfHanging) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  hsm.InitToken("Card A");
  Chain chain = MakeChain(KeyKind::k_ec, "Only Leaf");
  hsm.ImportCert("Card A", chain.leaf.get(), "01", "leaf");
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  std::vector<CertAndSlot> certs;

  EXPECT_EQ(context->GetCerts(certs), 0);

  EXPECT_EQ(context->SlotCount(), 2u);
  ASSERT_EQ(certs.size(), 1u);
  EXPECT_EQ(OwnLogLines(), OneTokenListing(1)) << rec().Dump();
}

TEST_F(Libp11ContextTest, TwoTokensAreListedInTokenOrderAfterEntriesAlreadyInTheArray) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  hsm.InitToken("Card A");
  hsm.InitToken("Card B");
  TestKey rsa_key = SharedKey(KeyKind::k_rsa);
  TestKey ec_key = SharedKey(KeyKind::k_ec);
  TestKey ec_key_b = SharedKey(KeyKind::k_ec, 1);
  TestX509 rsa_cert = MakeCert(Named("RSA on A"), rsa_key.get());
  TestX509 ec_cert = MakeCert(Named("EC on A"), ec_key.get());
  TestX509 b_cert = MakeCert(Named("EC on B"), ec_key_b.get());
  hsm.ImportCertAndKey("Card A", rsa_cert.get(), rsa_key.get(), "01", "rsa");
  hsm.ImportCertAndKey("Card A", ec_cert.get(), ec_key.get(), "02", "ec");
  hsm.ImportCertAndKey("Card B", b_cert.get(), ec_key_b.get(), "03", "ec b");
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  PKCS11_CERT earlier_cert{};
  std::vector<CertAndSlot> certs = {{&earlier_cert, nullptr}};

  EXPECT_EQ(context->GetCerts(certs), 0);

  ASSERT_EQ(certs.size(), 4u);
  EXPECT_EQ(certs[0].cert, &earlier_cert);
  EXPECT_EQ(certs[0].slot, nullptr);
  ASSERT_EQ(context->SlotCount(), 3u);
  PKCS11_SLOT* slot_a = FindSlot(*context, "Card A");
  PKCS11_SLOT* slot_b = FindSlot(*context, "Card B");
  ASSERT_NE(slot_a, nullptr);
  ASSERT_NE(slot_b, nullptr);
  // SoftHSM2 orders its slots by token, not by initialisation; the free
  // token comes last.
  EXPECT_FALSE(context->Slots()[2].token->initialized);
  const bool a_first = slot_a < slot_b;
  const std::size_t a_at = a_first ? 1 : 2;
  const std::size_t b_at = a_first ? 3 : 1;
  // Entries point into libp11's own certificate arrays, in the token's order.
  PKCS11_CERT* a_certs = nullptr;
  unsigned int a_count = 0;
  ASSERT_EQ(PKCS11_enumerate_certs(slot_a->token, &a_certs, &a_count), 0);
  ASSERT_EQ(a_count, 2u);
  EXPECT_EQ(certs[a_at].cert, &a_certs[0]);
  EXPECT_EQ(certs[a_at + 1].cert, &a_certs[1]);
  EXPECT_EQ(certs[a_at].slot, slot_a);
  EXPECT_EQ(certs[a_at + 1].slot, slot_a);
  EXPECT_EQ(X509_cmp(certs[b_at].cert->x509, b_cert.get()), 0);
  EXPECT_EQ(certs[b_at].slot, slot_b);
  const bool a_in_order = X509_cmp(certs[a_at].cert->x509, rsa_cert.get()) == 0 &&
                          X509_cmp(certs[a_at + 1].cert->x509, ec_cert.get()) == 0;
  const bool a_reversed = X509_cmp(certs[a_at].cert->x509, ec_cert.get()) == 0 &&
                          X509_cmp(certs[a_at + 1].cert->x509, rsa_cert.get()) == 0;
  EXPECT_TRUE(a_in_order || a_reversed);
  const LogLines expected = {{0, k_started, k_started},
                             {1, k_slot_has, SlotHas(a_first ? 2 : 1)},
                             {1, k_slot_has, SlotHas(a_first ? 1 : 2)},
                             k_free_token_error,
                             {1, k_total, Total(4)}};
  EXPECT_EQ(OwnLogLines(), expected) << rec().Dump();
}

TEST_F(Libp11ContextTest, TokenWithoutCertificatesAddsNothing) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  hsm.InitToken("Empty");
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();
  std::vector<CertAndSlot> certs;

  EXPECT_EQ(context->GetCerts(certs), 0);

  EXPECT_TRUE(certs.empty());
  EXPECT_EQ(OwnLogLines(), OneTokenListing(0)) << rec().Dump();
}

TEST_F(Libp11ContextTest, GetInstanceSharesTheLiveInstanceAndMakesAFreshOneAfterRelease) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  hsm.InitToken("Card A");
  TestKey key = SharedKey(KeyKind::k_ec);
  TestX509 a_cert = MakeCert(Named("On A"), key.get());
  TestX509 b_cert = MakeCert(Named("On B"), key.get());
  hsm.ImportCert("Card A", a_cert.get(), "01", "a");

  std::shared_ptr<Libp11Context> first = Libp11Context::GetInstance();
  std::vector<CertAndSlot> certs;
  ASSERT_EQ(first->GetCerts(certs), 0);
  std::shared_ptr<Libp11Context> second = Libp11Context::GetInstance();
  EXPECT_EQ(first, second);
  EXPECT_TRUE(second->IsInitialised());

  // A token initialised now is seen only by a context that loads the module
  // afresh: slots are enumerated once per instance.
  hsm.InitToken("Card B");
  hsm.ImportCert("Card B", b_cert.get(), "02", "b");
  certs.clear();
  ASSERT_EQ(second->GetCerts(certs), 0);
  EXPECT_EQ(certs.size(), 1u);

  certs.clear();
  first.reset();
  second.reset();
  std::shared_ptr<Libp11Context> third = Libp11Context::GetInstance();
  ASSERT_NE(third, nullptr);
  EXPECT_FALSE(third->IsInitialised());
  ASSERT_EQ(third->GetCerts(certs), 0);
  EXPECT_TRUE(third->IsModuleLoaded());
  ASSERT_EQ(certs.size(), 2u);
  const bool a_first = X509_cmp(certs[0].cert->x509, a_cert.get()) == 0;
  EXPECT_EQ(X509_cmp(certs[a_first ? 0 : 1].cert->x509, a_cert.get()), 0);
  EXPECT_EQ(X509_cmp(certs[a_first ? 1 : 0].cert->x509, b_cert.get()), 0);
}

TEST_F(Libp11ContextTest, GetInstanceWhileHeldDoesNotReloadTheModule) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  hsm.InitToken("Card A");
  std::shared_ptr<Libp11Context> first = Libp11Context::GetInstance();
  std::vector<CertAndSlot> certs;
  ASSERT_EQ(first->GetCerts(certs), 0);
  const PKCS11_SLOT* slots = first->Slots();

  std::shared_ptr<Libp11Context> second = Libp11Context::GetInstance();
  ASSERT_EQ(second->GetCerts(certs), 0);

  EXPECT_EQ(second->Slots(), slots);
  EXPECT_EQ(first.use_count(), 2);
}

TEST_F(Libp11ContextTest, ConcurrentGetInstanceCallsShareOneInstance) {
  std::shared_ptr<Libp11Context> held = Libp11Context::GetInstance();
  std::vector<std::shared_ptr<Libp11Context>> taken(8);
  std::vector<std::thread> threads;
  for (std::shared_ptr<Libp11Context>& slot : taken)
    threads.emplace_back([&slot] { slot = Libp11Context::GetInstance(); });
  for (std::thread& thread : threads) thread.join();

  for (const std::shared_ptr<Libp11Context>& instance : taken) EXPECT_EQ(instance, held);
  EXPECT_EQ(held.use_count(), 9);
}

TEST_F(Libp11ContextTest, NewInstanceLoadsNothingUntilTheFirstGetCerts) {
  X509AUTH_SKIP_WITHOUT_SOFTHSM2();
  SoftHsmToken hsm;
  std::shared_ptr<Libp11Context> context = Libp11Context::GetInstance();

  EXPECT_FALSE(context->IsInitialised());
  EXPECT_FALSE(context->IsModuleLoaded());
  EXPECT_EQ(context->SlotCount(), 0u);
  EXPECT_EQ(context->Slots(), nullptr);
  EXPECT_TRUE(rec().Logs().empty());
}

}  // namespace
}  // namespace x509auth_test
