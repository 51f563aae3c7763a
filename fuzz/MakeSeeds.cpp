// Writes the seed corpora of every harness into the directory given as the
// only argument, one subdirectory per harness, from the test PKI: the
// certificates, chains and key encodings the tests use.
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "FuzzHost.h"
#include "TestPki.h"

namespace {

namespace fs = std::filesystem;
using namespace x509auth_test;

std::string Text(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

class SeedWriter {
 public:
  SeedWriter(const fs::path& root, const std::string& harness) : directory_(root / harness) {
    fs::create_directories(directory_);
  }
  void Add(const std::string& content) {
    WriteFile(directory_ / ("seed-" + std::to_string(next_++)), content);
  }

 private:
  fs::path directory_;
  int next_ = 0;
};

std::string Join(const std::vector<std::string>& parts) {
  std::string joined;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i != 0) joined += x509auth_fuzz::k_part_separator;
    joined += parts[i];
  }
  return joined;
}

void CertFileSeeds(const fs::path& root) {
  SeedWriter seeds(root, "fuzz_cert_file");
  for (const KeyKind kind : {KeyKind::k_rsa, KeyKind::k_ec}) {
    const Chain chain = MakeChain(kind);
    seeds.Add(CertToPem(chain.leaf.get()));
    seeds.Add(Text(CertToDer(chain.leaf.get())));
    seeds.Add(Join({CertToPem(chain.leaf.get()), CertToPem(chain.intermediate.get()),
                    CertToPem(chain.root.get())}));
    seeds.Add(Join({Text(CertToDer(chain.leaf.get())), Text(CertToDer(chain.intermediate.get())),
                    Text(CertToDer(chain.root.get()))}));
    // Several certificates in one file: only the first counts.
    seeds.Add(CertToPem(chain.leaf.get()) + CertToPem(chain.root.get()));
  }
  const TestKey rsa = SharedKey(KeyKind::k_rsa);
  CertOptions utc;
  utc.not_before = "690101000000Z";
  utc.not_after = "700101000000Z";
  utc.key_usage = "digitalSignature";
  seeds.Add(CertToPem(MakeCert(utc, rsa.get()).get()));
  CertOptions generalized;
  generalized.not_before = "19500101000000Z";
  generalized.not_after = "20991231235959Z";
  generalized.extended_key_usage = "serverAuth,clientAuth";
  seeds.Add(Text(CertToDer(MakeCert(generalized, rsa.get()).get())));
  CertOptions nameless;
  nameless.omit_common_name = true;
  nameless.key_usage = "keyEncipherment";
  seeds.Add(CertToPem(MakeCert(nameless, rsa.get()).get()));
  for (const KeyKind kind : {KeyKind::k_rsa_pss, KeyKind::k_ed25519}) {
    const TestKey key = MakeKey(kind);
    seeds.Add(Text(CertToDer(MakeCert(CertOptions{}, key.get()).get())));
  }
  seeds.Add("");
}

void KeyFileSeeds(const fs::path& root) {
  SeedWriter seeds(root, "fuzz_key_file");
  const char* password = x509auth_fuzz::k_right_password;
  std::uint8_t operations = 0;
  auto add = [&](std::uint8_t answer, const std::string& key) {
    // Hash types and operations vary across the seeds.
    seeds.Add(std::string{static_cast<char>(answer), static_cast<char>(operations++ % 16)} + key);
  };
  for (const KeyKind kind :
       {KeyKind::k_rsa, KeyKind::k_ec, KeyKind::k_rsa_pss, KeyKind::k_ed25519}) {
    const TestKey key = MakeKey(kind);
    add(0, KeyToPem(key.get()));
    add(0, Text(KeyToDer(key.get())));
    for (std::uint8_t answer = 0; answer < 6; ++answer) add(answer, KeyToPem(key.get(), password));
    add(0, Text(KeyToEncryptedDer(key.get(), password)));
    add(1, Text(KeyToEncryptedDer(key.get(), password)));
    if (kind == KeyKind::k_rsa || kind == KeyKind::k_ec) {
      add(0, KeyToTraditionalPem(key.get()));
      add(0, KeyToTraditionalPem(key.get(), password));
      add(3, KeyToTraditionalPem(key.get(), password));
      add(0, Text(KeyToTraditionalDer(key.get())));
    }
  }
  add(0, "");
}

void AddCaSeeds(const fs::path& root) {
  SeedWriter seeds(root, "fuzz_add_ca");
  for (const KeyKind kind : {KeyKind::k_rsa, KeyKind::k_ec}) {
    const Chain chain = MakeChain(kind);
    CertOptions leaf_options;
    leaf_options.common_name = "Fuzz Leaf";
    leaf_options.extended_key_usage = "clientAuth";
    const TestX509 leaf =
        MakeCert(leaf_options, chain.leaf_key.get(), chain.root.get(), chain.root_key.get());
    seeds.Add(Join({CertToPem(chain.root.get()), CertToPem(leaf.get())}));
    seeds.Add(Join({Text(CertToDer(chain.root.get())), Text(CertToDer(leaf.get()))}));
    seeds.Add(Join({CertToPem(chain.intermediate.get()), CertToPem(chain.leaf.get())}));
    seeds.Add(CertToPem(chain.root.get()) + "trailing text");
  }
  seeds.Add("-----BEGIN CERTIFICATE-----");
  seeds.Add("");
}

void PemToDerSeeds(const fs::path& root) {
  SeedWriter seeds(root, "fuzz_pem_to_der");
  const Chain chain = MakeChain(KeyKind::k_ec);
  seeds.Add(CertToPem(chain.leaf.get()));
  seeds.Add(CertToPem(chain.leaf.get()) + CertToPem(chain.root.get()));
  seeds.Add("junk before\n" + CertToPem(chain.root.get()));
  seeds.Add("-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n");
}

void SignDecryptSeeds(const fs::path& root) {
  SeedWriter seeds(root, "fuzz_sign_decrypt");
  for (const std::size_t length : {0, 1, 4, 16, 40, 80, 130, 256, 300}) {
    std::string bytes;
    for (std::size_t i = 0; i < length; ++i) bytes += static_cast<char>((i * 37 + length) & 0xff);
    seeds.Add(bytes);
  }
}

}  // namespace

// Call sequences for the PKCS#11 module: byte strings whose first bytes pick
// open-session, find, sign and decrypt steps; libFuzzer takes it from there.
void Pkcs11Seeds(const fs::path& root) {
  SeedWriter seeds(root, "fuzz_pkcs11");
  seeds.Add(std::string("\x06\x01\x01\x06\x0a\x00\x0b\x01\x08\x0e\x01\x01\x0f", 13));
  seeds.Add(std::string("\x03\x01\x01\x06\x01\x06\x08\x01pin\x0a\x01\x0b\x08\x12\x00\x13", 19));
  seeds.Add(std::string(64, '\x0e'));
  seeds.Add(std::string(64, '\x0d'));
  // A second thread (step 22), then forks (step 23), read from the end.
  seeds.Add(std::string("\x0b\x0a\x06\x17\x16", 5));
  seeds.Add(std::string(16, '\x17') + std::string(16, '\x16'));
}

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUTPUT-DIRECTORY\n", argv[0]);
    return 2;
  }
  const fs::path root(argv[1]);
  CertFileSeeds(root);
  KeyFileSeeds(root);
  AddCaSeeds(root);
  PemToDerSeeds(root);
  SignDecryptSeeds(root);
  Pkcs11Seeds(root);
  return 0;
}
