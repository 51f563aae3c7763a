#pragma once
// A real smart-card stack for tests, from Debian's packages: a private pcscd
// with vpcd's virtual reader, and a libcacard virtual card (RSA key and
// certificate kept in an NSS database) that a small bridge program connects
// to the reader. OpenSC's module reaches it through PCSCLITE_CSOCK_NAME.
//
// pcscd 1.9.9 always puts its socket in /run/pcscd, so it runs in a mount
// namespace of its own with the rig's directory bound over /run: its socket
// appears in that directory and the system's pcscd, if any, is never touched.
// Each rig listens for the card on its own pair of loopback ports (vpcd
// makes two readers), so rigs in parallel tests do not meet.
//
//   VirtualCardRig rig(temp / "rig", CACARD_BRIDGE_PATH);
//   ASSERT_TRUE(rig.Start(cert.get(), key.get())) << rig.Log();
//   ASSERT_TRUE(rig.Insert());  // the card is in the reader
//   RunChild({..., rig.Environment()});
//   ASSERT_TRUE(rig.Pull());    // and out again
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "ChildProcess.h"

// Skips the current test, with the reason, where the rig cannot run (not
// root, a package missing).
#define X509AUTH_SKIP_WITHOUT_CARD_RIG(bridge)                                      \
  do {                                                                              \
    if (const auto reason = ::x509auth_test::VirtualCardRig::MissingReason(bridge)) \
      GTEST_SKIP() << *reason;                                                      \
  } while (false)

namespace x509auth_test {

class VirtualCardRig {
 public:
  // libcacard checks the PIN as the password of the card's NSS database.
  static constexpr const char* k_pin = "123456";
  static constexpr const char* k_reader = "Virtual PCD 00 00";
  static constexpr const char* k_opensc_module = "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so";
  // OpenSC's CAC driver names the token after the certificate's common name
  // and the key after the card's first slot.
  static constexpr const char* k_key_label = "CAC ID Certificate";

  // Why the rig cannot run here, or nothing.
  static std::optional<std::string> MissingReason(const std::string& bridge_path);

  VirtualCardRig(std::filesystem::path directory, std::string bridge_path);
  ~VirtualCardRig();
  VirtualCardRig(const VirtualCardRig&) = delete;
  VirtualCardRig& operator=(const VirtualCardRig&) = delete;

  // Personalises the card with |cert| and its RSA |key|, then starts pcscd
  // with the virtual reader, empty. False when any step fails (Log() says).
  bool Start(X509* cert, EVP_PKEY* key);
  // Starts the bridge and waits until pcscd has seen the card (10 s at most).
  bool Insert();
  // Inserts a card that pulls itself out when an APDU with |instruction|
  // arrives, before answering it (0x42: the CAC card's signature, 0x20: its
  // PIN check): removal in the middle of that operation.
  // |occurrence| counts that instruction's APDUs: 2 pulls at the second.
  bool InsertPullingAt(int instruction, int occurrence = 1);
  // Ends the bridge (unless it ended by itself) and waits until pcscd has
  // seen the card go.
  bool Pull();
  bool Inserted() const { return bridge_ != nullptr; }

  // What a process using the card needs: pcscd's socket, an OpenSC
  // configuration without its file cache (nothing written to HOME).
  std::map<std::string, std::string> Environment() const;
  // pcscd's log and what the rig did, for failure messages.
  std::string Log() const;
  // How often pcscd has seen a card come and go so far.
  int InsertionsSeen() const;
  int RemovalsSeen() const;

 private:
  bool WaitForCount(const std::string& text, int count) const;
  bool Run(const std::vector<std::string>& argv);

  std::filesystem::path directory_;
  std::string bridge_path_;
  int port_ = -1;
  std::string steps_;
  std::unique_ptr<BackgroundChild> pcscd_;
  std::unique_ptr<BackgroundChild> bridge_;
  int bridges_started_ = 0;
};

}  // namespace x509auth_test
