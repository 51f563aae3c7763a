#include "RecordJson.h"

#include "Formatting.h"

namespace x509auth_tool {

nlohmann::json RecordJson(const X509_Auth_Certificate& record) {
  nlohmann::json chain = nlohmann::json::array();
  for (uint64_t i = 0; i < record.ca_chain_count; ++i)
    chain.push_back(Hex(record.ca_chain[i], X509_AUTH_THUMBPRINT_LENGTH));
  return nlohmann::json{
      {"thumbprint", ThumbprintHex(record)},
      {"subject", record.name != nullptr ? record.name : ""},
      {"issuer", record.issuer_name != nullptr ? record.issuer_name : ""},
      {"not_before", record.not_before},
      {"not_after", record.not_after},
      {"not_before_iso", IsoTime(record.not_before)},
      {"not_after_iso", IsoTime(record.not_after)},
      {"source", SourceName(record.cert_type)},
      {"key_algorithm", KeyAlgorithmName(record.key_algorithm_group)},
      {"key_path", record.key_path != nullptr ? record.key_path : ""},
      {"chain", chain},
  };
}

}  // namespace x509auth_tool
