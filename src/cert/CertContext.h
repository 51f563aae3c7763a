#pragma once
#include <memory>
#include <variant>

#include "cert/CertFileContext.h"
#include "cert/EncodedCertContext.h"
#include "cert/Libp11CertContext.h"

namespace quorvant::shared::x509 {

// Where a certificate came from. The index order is fixed: 0 file, 1
// encoded, 2 token; the active pointer is never null.
using CertContext =
    std::variant<std::unique_ptr<CertFileContext>, std::unique_ptr<EncodedCertContext>,
                 std::unique_ptr<Libp11CertContext>>;

}  // namespace quorvant::shared::x509
