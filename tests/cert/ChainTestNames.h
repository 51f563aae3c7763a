#pragma once
// The helpers the chain tests build their certificates and stores with,
// named once for both of them.
#include "CertTestSupport.h"
#include "TestPki.h"

namespace quorvant::shared::x509 {

using test::MakeFileCert;
using test::X509OnlyStore;
using x509auth_test::CertOptions;
using x509auth_test::KeyKind;
using x509auth_test::MakeCert;
using x509auth_test::SharedKey;
using x509auth_test::TestKey;
using x509auth_test::TestX509;

}  // namespace quorvant::shared::x509
