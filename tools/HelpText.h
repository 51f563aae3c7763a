#pragma once
// The manual page of the tool, shown under `x509-auth --help`.

namespace x509auth_tool {

inline constexpr const char* k_help_footer = R"(
DESCRIPTION
  Shows which X.509 client certificates this machine offers to programs that
  use libx509auth, signs and decrypts with their private keys, and explains
  why a certificate you expect is not offered (doctor).

  Certificates come from BASE/certs (PEM or DER files; the key of certs/NAME
  is keys/NAME.key, possibly password-protected) and from PKCS#11 tokens.

COMMANDS
  list [--json]      The offered certificates: a table (short thumbprint,
                     subject, issuer, source, key, expiry marked "expired",
                     "not yet valid" or "in N days" under 30 days; coloured
                     on a terminal unless NO_COLOR is set), or a JSON array
                     of objects with the keys thumbprint, subject, issuer,
                     not_before, not_after, not_before_iso, not_after_iso,
                     source (file|smartcard|other), key_algorithm
                     (rsa|ec|other), key_path and chain (leaf first).
  chain THUMBPRINT [--pem]
                     The chain's thumbprints and subjects, leaf first; --pem
                     writes the leaf and the CA certificates the library
                     hands out.
  sign THUMBPRINT [--hash sha1|sha256|sha384|sha512] [--in FILE|-] [--out FILE]
                     Hashes the input (default: sha256 of stdin), signs the
                     digest, verifies the signature with the certificate's
                     public key; hex on stdout, or raw to --out.
  decrypt THUMBPRINT --padding pkcs1|oaep [--in FILE|-] [--out FILE]
                     Decrypts with the certificate's RSA key.
  show THUMBPRINT    Opens the certificate in the desktop's viewer
                     (gcr-viewer).
  doctor [--json]    One report per entry of every certs directory and per
                     token certificate: offered or not, and why.
  tls HOST:PORT --cert THUMBPRINT [--CAfile FILE] [--servername NAME]
      [--tls1_2|--tls1_3] [--send TEXT] [--token-key library|export]
                     A TLS handshake authenticated with the certificate,
                     through the built-in x509auth OpenSSL provider (or, with
                     --token-key export, a token key exported by the
                     library): prints the version, cipher, signature scheme,
                     the server's subject and verification, and whether the
                     server accepted the client certificate. RSA keys are for
                     TLS 1.2 only: --tls1_3 with an RSA key is refused.

DOCTOR
  Reasons a certificate is not offered:
    not-a-certificate   the entry is neither a PEM nor a DER certificate
    key-usage           neither TLS client authentication (extended key
                        usage) nor digital signature (key usage) is allowed
    chain               the chain or thumbprint could not be built; OpenSSL's
                        verification error is given (add the issuing CA with
                        --add-ca, or install it in the system's CA store)
    no-certs-directory  a base directory has no certs directory
  Informational, given with the chain error they cause:
    expired, not-yet-valid
  The key of a file certificate:
    missing, plain, encrypted (password not checked), unreadable,
    does-not-match; a token certificate's key is "token" (seen at login).
  TLS readiness: tls1.2 and tls1.3 for EC keys; tls1.2 only for RSA keys,
  because TLS 1.3 needs RSA-PSS and the library signs with PKCS#1 v1.5 only.

DIRECTORIES
  --dir BASE and --home-dir REL may be repeated. With neither, the tool looks
  in ~/.x509-auth (certificates in ~/.x509-auth/certs, keys in
  ~/.x509-auth/keys).

SMART CARDS
  The library loads its PKCS#11 module as ./opensc-pkcs11.so. The tool links
  --module PATH (default: ./opensc-pkcs11.so when it exists, else the
  system's OpenSC module) into a private temporary directory, runs there and
  removes it on exit; relative paths on the command line are resolved first.

PINS AND PASSWORDS
  On a terminal the tool asks without echo, showing the library's prompt.
  --pin-env VAR / --password-env VAR take the answer from the environment;
  --pin-fd N / --password-fd N read one line from descriptor N per prompt.
  With no terminal and no source the prompt is cancelled and the tool says
  which prompt went unanswered.

THUMBPRINT
  40 hex digits (any case, colons allowed) or a unique prefix of at least 6.
  An unknown or ambiguous prefix is an error that lists the candidates.

EXIT STATUS
  0  success
  1  the operation failed (not found, cancelled prompt, wrong PIN, a library
     result code, which is printed with its meaning)
  2  usage error

EXAMPLES
  x509-auth list
  x509-auth --dir ./pki doctor
  echo hello | x509-auth --pin-env PIN sign 3f2a9c --hash sha256
  x509-auth --add-ca ca.pem chain 3f2a9c --pem > chain.pem
  x509-auth --add-ca ca.pem tls localhost:8443 --cert <40 hex> --CAfile server-ca.pem
)";

}  // namespace x509auth_tool
