#include "VirtualCardRig.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "TestPki.h"

namespace x509auth_test {
namespace {

using namespace std::chrono_literals;

constexpr const char* k_vpcd_driver = "/usr/lib/pcsc/drivers/serial/libifdvpcd.so";
// X509AUTH_TEST_PCSCD names another pcscd (the skip test names none).
std::string PcscdPath() {
  const char* chosen = std::getenv("X509AUTH_TEST_PCSCD");
  return chosen != nullptr ? chosen : "/usr/sbin/pcscd";
}
constexpr const char* k_nickname = "virtual-card";
constexpr const char* k_inserted = "Card inserted into ";
constexpr const char* k_removed = "Card Removed From ";

bool PortFree(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(static_cast<uint16_t>(port));
  const bool free = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return free;
}

// vpcd listens on the configured port and the next one (its two readers).
int FreePortPair() {
  std::mt19937 random(
      static_cast<unsigned>(getpid()) ^
      static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
  for (int attempt = 0; attempt < 50; ++attempt) {
    const int port = 20000 + static_cast<int>(random() % 20000) * 2;
    if (PortFree(port) && PortFree(port + 1)) return port;
  }
  return -1;
}

int Count(const std::string& text, const std::string& what) {
  int count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++count;
  return count;
}

}  // namespace

std::optional<std::string> VirtualCardRig::MissingReason(const std::string& bridge_path) {
  if (geteuid() != 0) return "the virtual card rig needs root (a mount namespace for pcscd)";
  const std::string pcscd = PcscdPath();
  for (const char* path : {pcscd.c_str(), k_vpcd_driver, k_opensc_module, "/usr/bin/unshare",
                           "/usr/bin/certutil", "/usr/bin/pk12util", bridge_path.c_str()})
    if (access(path, X_OK) != 0 && access(path, R_OK) != 0)
      return std::string("the virtual card rig needs ") + path +
             " (scripts/install-deps.sh: pcscd, vsmartcard-vpcd, libcacard-dev, libnss3-tools, "
             "opensc-pkcs11)";
  const ChildResult probe = RunChild({{"unshare", "-m", "--propagation", "private", "true"}});
  if (probe.status != 0)
    return "the virtual card rig needs a mount namespace (unshare -m failed: " + probe.err + ")";
  return std::nullopt;
}

VirtualCardRig::VirtualCardRig(std::filesystem::path directory, std::string bridge_path)
    : directory_(std::move(directory)), bridge_path_(std::move(bridge_path)) {}

VirtualCardRig::~VirtualCardRig() {
  if (bridge_) {
    bridge_->Signal(SIGTERM);
    bridge_->Finish(5s);
  }
  if (pcscd_) {
    pcscd_->Signal(SIGTERM);
    pcscd_->Finish(5s);
  }
}

bool VirtualCardRig::Run(const std::vector<std::string>& argv) {
  ChildRun run;
  run.argv = argv;
  run.limit = std::chrono::seconds(30);
  const ChildResult result = RunChild(run);
  std::string line;
  for (const std::string& arg : argv) line += arg + " ";
  steps_ += line + "-> " + std::to_string(result.status) + "\n" + result.out + result.err;
  return result.status == 0;
}

bool VirtualCardRig::Start(X509* cert, EVP_PKEY* key) {
  namespace fs = std::filesystem;
  const fs::path db = directory_ / "nssdb";
  const fs::path run = directory_ / "run";
  const fs::path config = directory_ / "reader.conf.d";
  for (const fs::path& dir : {db, run, config}) fs::create_directories(dir);

  // The card: its key and certificate imported into a fresh NSS database
  // whose password is the card's PIN.
  WriteFile(directory_ / "card.pem", CertToPem(cert) + KeyToPem(key));
  WriteFile(directory_ / "db-password", std::string(k_pin) + "\n");
  WriteFile(directory_ / "p12-password", std::string("transfer\n"));
  if (!Run({"openssl", "pkcs12", "-export", "-in", (directory_ / "card.pem").string(), "-name",
            k_nickname, "-passout", "file:" + (directory_ / "p12-password").string(), "-out",
            (directory_ / "card.p12").string()}) ||
      !Run({"certutil", "-N", "-d", "sql:" + db.string(), "-f",
            (directory_ / "db-password").string()}) ||
      !Run({"pk12util", "-i", (directory_ / "card.p12").string(), "-d", "sql:" + db.string(), "-k",
            (directory_ / "db-password").string(), "-w", (directory_ / "p12-password").string()}))
    return false;

  // OpenSC's own settings: no file cache below HOME, everything else as
  // installed.
  WriteFile(directory_ / "opensc.conf",
            std::string("app default {\n  framework pkcs15 {\n    use_file_caching = no;\n"
                        "  }\n}\n"));

  port_ = FreePortPair();
  if (port_ < 0) {
    steps_ += "no free pair of loopback ports for vpcd\n";
    return false;
  }
  char device[64];
  std::snprintf(device, sizeof device, "/dev/null:0x%X", static_cast<unsigned>(port_));
  WriteFile(config / "vpcd", std::string("FRIENDLYNAME \"Virtual PCD\"\nDEVICENAME ") + device +
                                 "\nLIBPATH " + k_vpcd_driver + "\nCHANNELID " +
                                 std::to_string(port_) + "\n");

  // The rig's directory over /run in pcscd's own mount namespace: its socket
  // lands in run/pcscd, and the system's /run is left alone.
  ChildRun daemon;
  daemon.argv = {
      "setpriv",   "--pdeathsig",
      "TERM",      "unshare",
      "-m",        "--propagation",
      "private",   "sh",
      "-c",        "mount --bind \"$1\" /run && exec \"$2\" --foreground --info --config \"$3\"",
      "sh",        run.string(),
      PcscdPath(), config.string()};
  pcscd_ = std::make_unique<BackgroundChild>(daemon, (directory_ / "pcscd.log").string());
  if (!pcscd_->WaitForOutput("daemon ready", 10s) ||
      pcscd_->Output().find("port " + std::to_string(port_)) == std::string::npos) {
    steps_ += "pcscd did not start with vpcd on port " + std::to_string(port_) + "\n";
    return false;
  }
  return true;
}

bool VirtualCardRig::Insert() { return InsertPullingAt(-1, 1); }

bool VirtualCardRig::InsertPullingAt(int instruction, int occurrence) {
  if (!pcscd_ || bridge_) return false;
  ChildRun run;
  // Ended with the test process even when the test itself dies.
  run.argv = {
      "setpriv",  "--pdeathsig",        "TERM", bridge_path_, (directory_ / "nssdb").string(),
      k_nickname, std::to_string(port_)};
  if (instruction >= 0) {
    char option[32];
    std::snprintf(option, sizeof option, "pull-at-%02x-%d", static_cast<unsigned>(instruction),
                  occurrence);
    run.argv.push_back(option);
  }
  bridge_ = std::make_unique<BackgroundChild>(
      run, (directory_ / ("bridge-" + std::to_string(++bridges_started_) + ".log")).string());
  if (!bridge_->WaitForOutput("inserted", 10s)) {
    steps_ += "the bridge did not connect: " + bridge_->Output() + "\n";
    return false;
  }
  // Each card put in is seen once in and once out: the n-th insertion waits
  // for the n-th of each.
  return WaitForCount(k_inserted, bridges_started_);
}

bool VirtualCardRig::Pull() {
  if (!bridge_) return false;
  bridge_->Signal(SIGTERM);
  bridge_->Finish(5s);
  bridge_.reset();
  return WaitForCount(k_removed, bridges_started_);
}

bool VirtualCardRig::WaitForCount(const std::string& text, int count) const {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (std::chrono::steady_clock::now() < deadline) {
    if (Count(pcscd_->Output(), text) >= count) return true;
    std::this_thread::sleep_for(20ms);
  }
  return false;
}

int VirtualCardRig::InsertionsSeen() const {
  return pcscd_ ? Count(pcscd_->Output(), k_inserted) : 0;
}

int VirtualCardRig::RemovalsSeen() const { return pcscd_ ? Count(pcscd_->Output(), k_removed) : 0; }

std::map<std::string, std::string> VirtualCardRig::Environment() const {
  return {{"PCSCLITE_CSOCK_NAME", (directory_ / "run" / "pcscd" / "pcscd.comm").string()},
          {"OPENSC_CONF", (directory_ / "opensc.conf").string()}};
}

std::string VirtualCardRig::Log() const {
  return steps_ + (pcscd_ ? "pcscd:\n" + pcscd_->Output() : std::string("pcscd not started\n"));
}

}  // namespace x509auth_test
