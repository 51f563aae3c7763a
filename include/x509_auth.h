/*
 * x509_auth.h: the C interface of libx509auth, API version 3.
 *
 * The library hands a host application the user's X.509 client certificates
 * (from certificate files, PKCS#11 smart cards and CA certificates the host
 * adds) and performs private-key operations with them. Usable from C (C99)
 * and C++.
 *
 * Ownership: every record, array or buffer the library hands out stays owned
 * by the library until its address is passed to X509_Auth_Free, or until the
 * next X509_Auth_Init or X509_Auth_DeInit. Only the private key returned by
 * X509_Auth_GetPrivateKeyForCertificate becomes the host's.
 *
 * Threading: the host serialises its calls. X509_Auth_Init,
 * X509_Auth_PostInitUpdateSettings and X509_Auth_DeInit must not run while
 * any other call is in progress.
 *
 * Exceptions: compiled as C++, X509_Auth_SignHash and X509_Auth_Decrypt throw
 * std::invalid_argument for enumeration values out of range (see there). A
 * host written in C must not pass such values.
 */
#ifndef X509_AUTH_H
#define X509_AUTH_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define X509_AUTH_EXPORT __attribute__((visibility("default")))
#else
#define X509_AUTH_EXPORT
#endif

/* The API version this header describes; X509_Auth_GetApiVersion returns it. */
#define X509_AUTH_API_VERSION 3

/* Length in bytes of a certificate thumbprint (SHA-1 of its DER encoding). */
#define X509_AUTH_THUMBPRINT_LENGTH 20

/* X509_Auth_LogPriority is the priority the library gives each log line. */
typedef enum X509_Auth_LogPriority {
  X509_Auth_LogPriority_Debug = 0,
  X509_Auth_LogPriority_Info = 1,
  X509_Auth_LogPriority_Warning = 2,
  /* A failure of the operation the host requested. */
  X509_Auth_LogPriority_Error = 3
} X509_Auth_LogPriority;

/* X509_Auth_KeyAlgorithmGroup is the family of a certificate's public key. */
typedef uint32_t X509_Auth_KeyAlgorithmGroup;
enum {
  /* Neither RSA nor EC; also RSASSA-PSS keys (1.2.840.113549.1.1.10). */
  X509_Auth_KeyAlgorithmGroup_Other = 0,
  X509_Auth_KeyAlgorithmGroup_Rsa = 1,
  X509_Auth_KeyAlgorithmGroup_Ec = 2
};

/* X509_Auth_CertificateType tells where a certificate came from. */
typedef uint32_t X509_Auth_CertificateType;
enum {
  /* A file of a "certs" directory; its key file is in the record's key path. */
  X509_Auth_CertificateType_FileBased = 0,
  /* A PKCS#11 token. */
  X509_Auth_CertificateType_SmartCard = 1,
  /* Anything else, for example a certificate added as encoded bytes. */
  X509_Auth_CertificateType_Other = 2
};

/* X509_Auth_HashType selects the length of the hash given to
 * X509_Auth_SignHash. */
typedef uint32_t X509_Auth_HashType;
enum {
  X509_Auth_HashType_Sha1 = 0,   /* 20 bytes */
  X509_Auth_HashType_Sha256 = 1, /* 32 bytes */
  X509_Auth_HashType_Sha384 = 2, /* 48 bytes */
  X509_Auth_HashType_Sha512 = 3  /* 64 bytes */
};

/* Key algorithm families accepted by X509_Auth_SignHash, passed as uint32_t. */
enum {
  X509_Auth_Algorithm_Unknown = 0,
  X509_Auth_Algorithm_Rsa = 1,
  X509_Auth_Algorithm_Ec = 2
};

/* Paddings accepted by X509_Auth_Decrypt, passed as uint32_t. */
enum {
  /* Accepted at the boundary but always refused with code 6. */
  X509_Auth_DecryptAlgorithm_None = 0,
  X509_Auth_DecryptAlgorithm_RsaPkcs1 = 1,
  /* OAEP with OpenSSL's default digest and MGF1 (SHA-1). */
  X509_Auth_DecryptAlgorithm_RsaOaep = 2
};

/* X509_Auth_ResultCode is the result of key operations. */
typedef int32_t X509_Auth_ResultCode;
enum {
  X509_Auth_ResultCode_Success = 0,
  /* The private-key operation itself failed. */
  X509_Auth_ResultCode_KeyOperationFailed = 1,
  /* X509_Auth_SignHash/Decrypt: the users' certificate store could not be
   * opened. X509_Auth_GetPrivateKeyForCertificate: the certificate is null. */
  X509_Auth_ResultCode_StoreOpenFailed = 2,
  X509_Auth_ResultCode_NullCertificate = 2,
  /* X509_Auth_SignHash/Decrypt: no certificate with the thumbprint.
   * X509_Auth_GetPrivateKeyForCertificate: the key output is null. */
  X509_Auth_ResultCode_CertificateNotFound = 3,
  X509_Auth_ResultCode_NullKeyOutput = 3,
  /* X509_Auth_SignHash/Decrypt: the private key could not be opened. */
  X509_Auth_ResultCode_KeyOpenFailed = 4,
  /* X509_Auth_GetPrivateKeyForCertificate: the store could not be opened. */
  X509_Auth_ResultCode_KeyExportStoreOpenFailed = 5,
  /* X509_Auth_SignHash/Decrypt: the algorithm is not supported.
   * X509_Auth_GetPrivateKeyForCertificate: no certificate with the
   * thumbprint. */
  X509_Auth_ResultCode_AlgorithmNotSupported = 6,
  X509_Auth_ResultCode_KeyExportCertificateNotFound = 6,
  /* X509_Auth_GetPrivateKeyForCertificate: the token login failed. */
  X509_Auth_ResultCode_TokenLoginFailed = 7,
  /* X509_Auth_GetPrivateKeyForCertificate: no key on the token. */
  X509_Auth_ResultCode_TokenKeyNotFound = 8,
  /* X509_Auth_GetPrivateKeyForCertificate: an encoded certificate has no
   * key. */
  X509_Auth_ResultCode_EncodedCertificateHasNoKey = 9,
  /* X509_Auth_GetPrivateKeyForCertificate: a file certificate; use the key
   * path of its record instead. */
  X509_Auth_ResultCode_UseKeyPath = 10
};

/* X509_Auth_Certificate describes one client certificate (104 bytes). Every
 * pointer stays valid until the array it belongs to is passed to
 * X509_Auth_Free. */
typedef struct X509_Auth_Certificate {
  const char* name;        /* subject common name */
  const char* issuer_name; /* issuer common name */
  int64_t not_before;      /* seconds since the Unix epoch */
  int64_t not_after;
  int32_t smart_card;        /* 1 for a token certificate, else 0 */
  uint32_t padding;          /* always 0 */
  const uint8_t* thumbprint; /* X509_AUTH_THUMBPRINT_LENGTH bytes */
  uint64_t encoded_length;
  const uint8_t* encoded; /* DER encoding */
  uint64_t ca_chain_count;
  /* ca_chain_count pointers, each to a 20-byte thumbprint, from the
   * certificate itself up the chain. May be null when the count is 0. */
  const uint8_t* const* ca_chain;
  X509_Auth_KeyAlgorithmGroup key_algorithm_group;
  X509_Auth_CertificateType cert_type;
  const char* key_path; /* key file of a file-based certificate, else "" */
  uint64_t reserved;    /* always 0 */
} X509_Auth_Certificate;

/* X509_Auth_ASN_1 is one DER blob, or a decrypted plaintext (16 bytes). */
typedef struct X509_Auth_ASN_1 {
  uint64_t length;
  const uint8_t* data;
} X509_Auth_ASN_1;

/* X509_Auth_Signature is a signature made by X509_Auth_SignHash (24 bytes). */
typedef struct X509_Auth_Signature {
  uint32_t algorithm; /* the X509_Auth_Algorithm_* that was used */
  uint32_t padding;
  uint64_t length;
  const uint8_t* data;
} X509_Auth_Signature;

/* X509_Auth_Result is the result of X509_Auth_SignHash and X509_Auth_Decrypt
 * (16 bytes, returned by value). */
typedef struct X509_Auth_Result {
  X509_Auth_ResultCode code;
  uint32_t padding;
  /* The error value of the failed step; 0 on success. */
  uint64_t detail;
} X509_Auth_Result;

/* X509_Auth_PinEntryResult is allocated by the host's PIN-entry callback and
 * handed back to its free callback. The library reads only these two fields;
 * a host may embed it at the start of a larger record of its own. */
typedef struct X509_Auth_PinEntryResult {
  const char* value; /* the PIN or password; read only when status is 0 */
  int32_t status;    /* 0: the user entered a value; else cancelled/failed */
} X509_Auth_PinEntryResult;

/* X509_Auth_Settings names the base directories searched for "certs" and
 * "keys" subdirectories (32 bytes). Read only during the call receiving it. */
typedef struct X509_Auth_Settings {
  const char* const* certificate_directories; /* used as given */
  uint64_t certificate_directory_count;
  const char* const* home_certificate_directories; /* relative to $HOME */
  uint64_t home_certificate_directory_count;
} X509_Auth_Settings;

/* The host's callbacks; any of them may be null. */
typedef void (*X509_Auth_LogCallback)(X509_Auth_LogPriority priority,
                                      const char* format, va_list arguments);
typedef X509_Auth_PinEntryResult* (*X509_Auth_PinEntryCallback)(
    const char* title, const char* prompt);
typedef void (*X509_Auth_FreePinEntryResultCallback)(
    X509_Auth_PinEntryResult* result);
typedef void (*X509_Auth_MessageCallback)(const char* message,
                                          const char* title);

/* X509_Auth_Callbacks holds the host's four callbacks (32 bytes). The log
 * callback receives an unformatted printf format and its arguments. */
typedef struct X509_Auth_Callbacks {
  X509_Auth_LogCallback log;
  X509_Auth_PinEntryCallback pin_entry;
  X509_Auth_FreePinEntryResultCallback free_pin_entry_result;
  X509_Auth_MessageCallback message;
} X509_Auth_Callbacks;

/* X509_Auth_Init installs |callbacks|, replaces the directory lists with
 * |settings| when it is not null, and starts a fresh key store. Calling it
 * again invalidates everything handed out before. */
X509_AUTH_EXPORT void X509_Auth_Init(const X509_Auth_Settings* settings,
                                     X509_Auth_Callbacks callbacks);

/* X509_Auth_PostInitUpdateSettings replaces the directory lists with
 * |settings| (null: no change); the next request sees them. */
X509_AUTH_EXPORT void X509_Auth_PostInitUpdateSettings(
    const X509_Auth_Settings* settings);

/* X509_Auth_DeInit destroys the key store with every result still held and
 * releases the library's hold on the smart-card context. Callbacks and
 * settings are kept. Called from an atexit handler, that handler must be
 * registered after the first request that reached a PKCS#11 module: the
 * module is loaded then, and its own exit-time clean-up runs before any
 * handler registered earlier. */
X509_AUTH_EXPORT void X509_Auth_DeInit(void);

/* X509_Auth_GetApiVersion returns X509_AUTH_API_VERSION (3). */
X509_AUTH_EXPORT int X509_Auth_GetApiVersion(void);

/* X509_Auth_LoadClientCertificates writes the number of usable client
 * certificates to |*count| and the address of their array to
 * |*certificates|, and returns true. It returns false, writing nothing, when
 * the certificate store could not be opened. The array is the library's
 * until passed to X509_Auth_Free. */
X509_AUTH_EXPORT bool X509_Auth_LoadClientCertificates(
    uint64_t* count, const X509_Auth_Certificate** certificates);

/* X509_Auth_Free releases a certificate array, signature, plaintext or CA
 * chain array handed out earlier. An unknown address is ignored. */
X509_AUTH_EXPORT void X509_Auth_Free(const void* p);

/* X509_Auth_AddAdditionalCertificateAuthorityToStore trusts a CA certificate
 * given as PEM text (starting with "-----BEGIN CERTIFICATE-----") or DER
 * bytes for chain building. Returns 1 when it was added, 0 otherwise. */
X509_AUTH_EXPORT int X509_Auth_AddAdditionalCertificateAuthorityToStore(
    const unsigned char* data, uint64_t length);

/* X509_Auth_GetChainedCAsForCertificate writes the DER encodings of the
 * certificates in |certificate|'s CA chain that the library's store holds.
 * Returns 0 on success, 2 for a null certificate, 3 for a null |count|, 4
 * for a null |asn1|. The array is the library's until passed to
 * X509_Auth_Free. */
X509_AUTH_EXPORT int32_t
X509_Auth_GetChainedCAsForCertificate(const X509_Auth_Certificate* certificate,
                                      uint64_t* count, X509_Auth_ASN_1** asn1);

/* X509_Auth_SignHash signs the digest |hash| with the private key of the
 * certificate whose SHA-1 thumbprint is the 20 bytes at |thumbprint|. The
 * certificate's key family must be among the |algorithm_count| values of
 * |algorithms|. |hash| holds the number of bytes |hash_type| implies. On
 * success |*signature| receives a record owned by the library until passed
 * to X509_Auth_Free; on failure it receives null. Throws
 * std::invalid_argument ("Unimplemented") for an algorithm above 2 and
 * ("Invalid hash type") for a hash type above 3. */
X509_AUTH_EXPORT X509_Auth_Result X509_Auth_SignHash(
    const uint8_t* thumbprint, uint64_t algorithm_count,
    const uint32_t* algorithms, X509_Auth_HashType hash_type,
    const unsigned char* hash, const X509_Auth_Signature** signature);

/* X509_Auth_Decrypt decrypts |length| bytes of |data| with the RSA private
 * key of the certificate whose thumbprint is at |thumbprint|, using the
 * padding |decrypt_algorithm|. On success |*plaintext| receives a record
 * owned by the library until passed to X509_Auth_Free; on failure null.
 * Throws std::invalid_argument ("Unimplemented") for an algorithm above 2. */
X509_AUTH_EXPORT X509_Auth_Result X509_Auth_Decrypt(
    const uint8_t* thumbprint, uint32_t decrypt_algorithm, uint64_t length,
    const unsigned char* data, const X509_Auth_ASN_1** plaintext);

/* X509_Auth_GetPrivateKeyForCertificate writes the EVP_PKEY* of a smart-card
 * certificate's private key to |*key| and returns 0; the host owns the key
 * and frees it with EVP_PKEY_free. Check the key: it may be null even when 0
 * is returned. Other results are X509_Auth_ResultCode values 2 to 10. */
X509_AUTH_EXPORT X509_Auth_ResultCode X509_Auth_GetPrivateKeyForCertificate(
    const X509_Auth_Certificate* certificate, void** key);

/* X509_Auth_ShowCertificateDialog shows |certificate| in the desktop's
 * certificate viewer and returns true when the viewer was started. |parent|
 * is ignored. */
X509_AUTH_EXPORT bool X509_Auth_ShowCertificateDialog(
    const X509_Auth_Certificate* certificate, void* parent);

/* ---------------------------------------------------------------------------
 * Extensions
 *
 * Functions beside the interface above, for hosts that need them. They
 * change nothing about the functions above: a host that never calls them
 * sees the library exactly as before. The API version stays 3.
 *
 * At build time, X509_AUTH_EXTENSIONS is defined. At run time, a host that
 * may meet an older libx509auth.so.3 looks the functions up before calling
 * them: dlsym(RTLD_DEFAULT, "X509_Auth_SetPkcs11Module") (or on the handle
 * dlopen gave) is null when the library it runs with has none.
 * ------------------------------------------------------------------------- */
#define X509_AUTH_EXTENSIONS 1

/* Result codes only the extensions give. */
enum {
  /* An argument is null, out of range, or not what the function takes. */
  X509_Auth_ResultCode_InvalidArgument = 11,
  /* The token holding the key can do neither RSA-PSS nor raw RSA. */
  X509_Auth_ResultCode_MechanismNotSupported = 12,
  /* The call reached the library while another call was still inside it
   * (from a host callback, from a PKCS#11 module the library loaded that
   * leads back to it, or from a second thread at the same time): nothing
   * was done, and an error line names the function. Functions with no
   * result code give their failure value instead (false, 0, no effect). */
  X509_Auth_ResultCode_Reentered = 13,
  /* An open key's file now holds a key that does not belong to its
   * certificate (see X509_Auth_OpenKey). */
  X509_Auth_ResultCode_KeyMismatch = 14
};

/* X509_Auth_SetPkcs11Module chooses the PKCS#11 module the library loads,
 * from the next module load on (the first request after X509_Auth_Init,
 * while no module is loaded): |path| must be an absolute path to a regular,
 * readable file, and then that file is the module, and the working
 * directory is never looked at. An empty string ("") means no module:
 * smart cards are off, and file and added certificates are listed as
 * usual. A null |path| restores the default lookup (./opensc-pkcs11.so in
 * the working directory). Returns 0 when the choice was taken, and
 * X509_Auth_ResultCode_InvalidArgument, with an error logged, when |path|
 * is refused; the previous choice then stays. */
X509_AUTH_EXPORT X509_Auth_ResultCode
X509_Auth_SetPkcs11Module(const char* path);

/* Salt lengths of X509_Auth_SignHashPss besides an explicit byte count. */
#define X509_AUTH_PSS_SALT_DIGEST (-1) /* as long as the digest (TLS 1.3) */
#define X509_AUTH_PSS_SALT_AUTO (-2)   /* when signing: the maximum */
#define X509_AUTH_PSS_SALT_MAX (-3)    /* the longest the key allows */

/* X509_Auth_SignHashPss signs the digest |hash| with RSASSA-PSS, using the
 * RSA private key of the certificate whose SHA-1 thumbprint is the 20 bytes
 * at |thumbprint|. The digest function is the one |hash_type| names (and
 * the length of |hash| is its length); MGF1 uses the same digest.
 * |salt_length| is a byte count (0 or more) or one of X509_AUTH_PSS_SALT_*.
 * The certificate is found, its key opened and PINs or passwords asked for
 * as in X509_Auth_SignHash. A key file signs with OpenSSL; a token key
 * with the token's CKM_RSA_PKCS_PSS, or, where the token offers only
 * CKM_RSA_X_509, over a PSS block the library encodes.
 *
 * On success |*signature| receives a record (algorithm
 * X509_Auth_Algorithm_Rsa) owned by the library until passed to
 * X509_Auth_Free, and the code is 0; on failure it receives null and the
 * code is one of X509_Auth_SignHash's (2 store, 3 not found, 4 key not
 * opened, 6 not an RSA certificate, 1 the signature failed), or
 * X509_Auth_ResultCode_InvalidArgument (a null pointer, a hash type above
 * 3, a salt length the key cannot hold) or
 * X509_Auth_ResultCode_MechanismNotSupported. Never throws. */
X509_AUTH_EXPORT X509_Auth_Result
X509_Auth_SignHashPss(const uint8_t* thumbprint, X509_Auth_HashType hash_type,
                      const unsigned char* hash, int32_t salt_length,
                      const X509_Auth_Signature** signature);

/* X509_Auth_SetTokenWatch turns the token watch on (non-zero |enabled|)
 * or off (0, the default). Off, the slots of the PKCS#11 module are listed
 * once, when the module is loaded, and used for the life of the library's
 * initialisation. On, from the next request every request sees the tokens
 * as they are then: a card inserted since is listed, the certificates of a
 * card that went away are gone, and a card put back asks for its PIN
 * again (so does every card, after any change of the tokens). A key
 * operation that meets a removed card or a closed session refreshes the
 * slots once and tries once more before it fails; a card pulled during its
 * PIN prompt is reported to the message callback as removed, not as a
 * wrong PIN. A key from X509_Auth_GetPrivateKeyForCertificate stays safe to
 * use and free until X509_Auth_DeInit, but signs only while its card's
 * login lasts. The setting is process-wide and outlives X509_Auth_DeInit.
 * Returns 0, or X509_Auth_ResultCode_Reentered. */
X509_AUTH_EXPORT X509_Auth_ResultCode X509_Auth_SetTokenWatch(int32_t enabled);

/* X509_Auth_KeyHandle names a key opened by X509_Auth_OpenKey; 0 is never
 * one. */
typedef uint64_t X509_Auth_KeyHandle;

/* X509_Auth_OpenKey opens the private key of the certificate whose SHA-1
 * thumbprint is the 20 bytes at |thumbprint|, found as
 * X509_Auth_FindCertificate finds it (a file certificate's key opens without
 * loading the PKCS#11 module), and writes a handle for it to |*key|. The
 * functions below then sign and decrypt with it many times, until
 * X509_Auth_CloseKey, X509_Auth_DeInit or the next X509_Auth_Init.
 *
 * A key file is read (and its password asked for, once) here, and the
 * parsed key is kept in the library's memory while the file stays the same
 * file (device, inode, size, modification and change times, looked at
 * once per operation). When the file changed, the next operation reads it
 * again, asking again for a password; a file now holding a key that does
 * not belong to the certificate gives X509_Auth_ResultCode_KeyMismatch and
 * one error line, and a file that is gone gives
 * X509_Auth_ResultCode_KeyOpenFailed; the key read before is freed either
 * way. No password is kept.
 *
 * A smart-card certificate's key keeps its slot, key object and the token's
 * login: the PIN is asked here, and not again while the token stays. With
 * the token watch on, an operation first looks whether the tokens changed
 * (then the key is found again, its PIN asked again), and one that meets
 * its token, session or key gone lists the tokens again, finds the key once
 * more and tries once before it fails.
 *
 * Returns code 0 on success; otherwise |*key| is 0 and the code is 2 (store
 * not opened), 3 (no such certificate), 4 (key not opened: missing,
 * unreadable, wrong password, no key), X509_Auth_ResultCode_KeyMismatch,
 * X509_Auth_ResultCode_InvalidArgument (a null pointer) or
 * X509_Auth_ResultCode_Reentered. Never throws. */
X509_AUTH_EXPORT X509_Auth_Result X509_Auth_OpenKey(const uint8_t* thumbprint,
                                                    X509_Auth_KeyHandle* key);

/* X509_Auth_OpenKeySignHash is X509_Auth_SignHash with an open key: the
 * certificate's key family must be among |algorithms|, and |hash| holds the
 * number of bytes |hash_type| implies. Results as X509_Auth_SignHash's,
 * plus X509_Auth_ResultCode_KeyMismatch, and
 * X509_Auth_ResultCode_InvalidArgument for an unknown handle, a null
 * pointer, an algorithm above 2 or a hash type above 3 (never thrown). */
X509_AUTH_EXPORT X509_Auth_Result X509_Auth_OpenKeySignHash(
    X509_Auth_KeyHandle key, uint64_t algorithm_count,
    const uint32_t* algorithms, X509_Auth_HashType hash_type,
    const unsigned char* hash, const X509_Auth_Signature** signature);

/* X509_Auth_OpenKeySignHashPss is X509_Auth_SignHashPss with an open key;
 * results as there, plus X509_Auth_ResultCode_KeyMismatch and
 * X509_Auth_ResultCode_InvalidArgument for an unknown handle. */
X509_AUTH_EXPORT X509_Auth_Result X509_Auth_OpenKeySignHashPss(
    X509_Auth_KeyHandle key, X509_Auth_HashType hash_type,
    const unsigned char* hash, int32_t salt_length,
    const X509_Auth_Signature** signature);

/* X509_Auth_OpenKeyDecrypt is X509_Auth_Decrypt with an open key; results
 * as there, plus X509_Auth_ResultCode_KeyMismatch, and
 * X509_Auth_ResultCode_InvalidArgument for an unknown handle, a null
 * pointer or an algorithm above 2 (never thrown). */
X509_AUTH_EXPORT X509_Auth_Result X509_Auth_OpenKeyDecrypt(
    X509_Auth_KeyHandle key, uint32_t decrypt_algorithm, uint64_t length,
    const unsigned char* data, const X509_Auth_ASN_1** plaintext);

/* X509_Auth_CloseKey frees the key |key| names; OpenSSL cleanses its
 * memory as it frees it. Returns 0, X509_Auth_ResultCode_InvalidArgument
 * (with an error line) for a handle that names no open key, or
 * X509_Auth_ResultCode_Reentered. */
X509_AUTH_EXPORT X509_Auth_ResultCode
X509_Auth_CloseKey(X509_Auth_KeyHandle key);

/* X509_Auth_FindCertificate hands out the one certificate whose SHA-1
 * thumbprint is the 20 bytes at |thumbprint|, without listing the others:
 * certificate files are looked at first, then the tokens (the PKCS#11
 * module is loaded only when no file holds the certificate), then the CA
 * certificates the host added. |*certificate| receives one record, laid out
 * and filled as X509_Auth_LoadClientCertificates fills it (with the same
 * log lines), owned by the library until passed to X509_Auth_Free. A file
 * or token certificate that the listing leaves out (its key usage, its
 * chain) is not found here either; an added CA certificate is handed as it
 * is, with type X509_Auth_CertificateType_Other and its chain when it
 * verifies (else none).
 *
 * Returns 0 on success; otherwise |*certificate| is null and the code is
 * X509_Auth_ResultCode_StoreOpenFailed (2: the tokens could not be
 * listed), X509_Auth_ResultCode_CertificateNotFound (3: no such
 * certificate, or one not offered), X509_Auth_ResultCode_InvalidArgument
 * (a null pointer) or X509_Auth_ResultCode_Reentered. Never throws. */
X509_AUTH_EXPORT X509_Auth_ResultCode X509_Auth_FindCertificate(
    const uint8_t* thumbprint, const X509_Auth_Certificate** certificate);

/* X509_Auth_GetListingVersion writes to |*version| a number that stays the
 * same while X509_Auth_LoadClientCertificates would hand out the same
 * records as its latest call did (the same certificate files under the same
 * names, tokens, added CAs and default CA locations, and no validity date
 * of a chain crossed), and is another number otherwise: a host that keeps
 * what it built from a listing lists again only when it changed. It opens
 * the users' store to compare, with its log lines, and lists nothing. A
 * certificate of a token, or one whose chain failed for a reason other than
 * its verification, makes every call give another number. A CA file
 * rewritten in place inside the default CA directory may go unseen.
 *
 * Returns 0, X509_Auth_ResultCode_StoreOpenFailed (2: the users' store
 * could not be opened), X509_Auth_ResultCode_InvalidArgument (a null
 * pointer) or X509_Auth_ResultCode_Reentered. Never throws. */
X509_AUTH_EXPORT X509_Auth_ResultCode
X509_Auth_GetListingVersion(uint64_t* version);

#ifdef __cplusplus
}
#endif

#endif /* X509_AUTH_H */
