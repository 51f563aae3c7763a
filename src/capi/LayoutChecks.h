/* Pins the x86-64 layout of every record that crosses the C boundary. Hosts
 * are compiled against these offsets, so a change here is an ABI break.
 * Included by one C and one C++ translation unit so both languages agree. */
#ifndef X509_AUTH_LAYOUT_CHECKS_H
#define X509_AUTH_LAYOUT_CHECKS_H

#include <stddef.h>

#include "x509_auth.h"

#ifdef __cplusplus
#define X509_AUTH_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define X509_AUTH_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif

#define X509_AUTH_PIN(type, field, offset) \
  X509_AUTH_STATIC_ASSERT(offsetof(type, field) == (offset), #type "." #field)

X509_AUTH_STATIC_ASSERT(sizeof(X509_Auth_Certificate) == 104, "X509_Auth_Certificate size");
X509_AUTH_PIN(X509_Auth_Certificate, name, 0);
X509_AUTH_PIN(X509_Auth_Certificate, issuer_name, 8);
X509_AUTH_PIN(X509_Auth_Certificate, not_before, 16);
X509_AUTH_PIN(X509_Auth_Certificate, not_after, 24);
X509_AUTH_PIN(X509_Auth_Certificate, smart_card, 32);
X509_AUTH_PIN(X509_Auth_Certificate, padding, 36);
X509_AUTH_PIN(X509_Auth_Certificate, thumbprint, 40);
X509_AUTH_PIN(X509_Auth_Certificate, encoded_length, 48);
X509_AUTH_PIN(X509_Auth_Certificate, encoded, 56);
X509_AUTH_PIN(X509_Auth_Certificate, ca_chain_count, 64);
X509_AUTH_PIN(X509_Auth_Certificate, ca_chain, 72);
X509_AUTH_PIN(X509_Auth_Certificate, key_algorithm_group, 80);
X509_AUTH_PIN(X509_Auth_Certificate, cert_type, 84);
X509_AUTH_PIN(X509_Auth_Certificate, key_path, 88);
X509_AUTH_PIN(X509_Auth_Certificate, reserved, 96);

X509_AUTH_STATIC_ASSERT(sizeof(X509_Auth_ASN_1) == 16, "X509_Auth_ASN_1 size");
X509_AUTH_PIN(X509_Auth_ASN_1, length, 0);
X509_AUTH_PIN(X509_Auth_ASN_1, data, 8);

X509_AUTH_STATIC_ASSERT(sizeof(X509_Auth_Signature) == 24, "X509_Auth_Signature size");
X509_AUTH_PIN(X509_Auth_Signature, algorithm, 0);
X509_AUTH_PIN(X509_Auth_Signature, padding, 4);
X509_AUTH_PIN(X509_Auth_Signature, length, 8);
X509_AUTH_PIN(X509_Auth_Signature, data, 16);

X509_AUTH_STATIC_ASSERT(sizeof(X509_Auth_Result) == 16, "X509_Auth_Result size");
X509_AUTH_PIN(X509_Auth_Result, code, 0);
X509_AUTH_PIN(X509_Auth_Result, padding, 4);
X509_AUTH_PIN(X509_Auth_Result, detail, 8);

X509_AUTH_STATIC_ASSERT(sizeof(X509_Auth_Settings) == 32, "X509_Auth_Settings size");
X509_AUTH_PIN(X509_Auth_Settings, certificate_directories, 0);
X509_AUTH_PIN(X509_Auth_Settings, certificate_directory_count, 8);
X509_AUTH_PIN(X509_Auth_Settings, home_certificate_directories, 16);
X509_AUTH_PIN(X509_Auth_Settings, home_certificate_directory_count, 24);

X509_AUTH_STATIC_ASSERT(sizeof(X509_Auth_Callbacks) == 32, "X509_Auth_Callbacks size");
X509_AUTH_PIN(X509_Auth_Callbacks, log, 0);
X509_AUTH_PIN(X509_Auth_Callbacks, pin_entry, 8);
X509_AUTH_PIN(X509_Auth_Callbacks, free_pin_entry_result, 16);
X509_AUTH_PIN(X509_Auth_Callbacks, message, 24);

/* The library reads only these two fields of the host's PIN entry result. */
X509_AUTH_PIN(X509_Auth_PinEntryResult, value, 0);
X509_AUTH_PIN(X509_Auth_PinEntryResult, status, 8);
X509_AUTH_STATIC_ASSERT(sizeof(((X509_Auth_PinEntryResult*)0)->status) == 4,
                        "X509_Auth_PinEntryResult.status width");

X509_AUTH_STATIC_ASSERT(sizeof(X509_Auth_LogPriority) == 4, "X509_Auth_LogPriority width");
X509_AUTH_STATIC_ASSERT(sizeof(X509_Auth_ResultCode) == 4, "X509_Auth_ResultCode width");

#endif /* X509_AUTH_LAYOUT_CHECKS_H */
