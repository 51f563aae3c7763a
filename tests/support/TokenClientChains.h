#pragma once
// The two token clients the TLS tests sign with, made once for the provider's
// and the tool's tests alike.
#include <string>

#include "SoftHsmToken.h"
#include "TestPki.h"

namespace x509auth_test {

// An RSA and an EC client chain, "Token RSA" and "Token EC", whose leaves
// and keys go on |card| of |hsm| under the ids 01 ("rsa") and 02 ("ec").
inline void ImportTokenClientChains(SoftHsmToken& hsm, const std::string& card, Chain* rsa,
                                    Chain* ec) {
  *rsa = MakeChain(KeyKind::k_rsa, "Token RSA");
  *ec = MakeChain(KeyKind::k_ec, "Token EC");
  hsm.ImportCertAndKey(card, rsa->leaf.get(), rsa->leaf_key.get(), "01", "rsa");
  hsm.ImportCertAndKey(card, ec->leaf.get(), ec->leaf_key.get(), "02", "ec");
}

}  // namespace x509auth_test
