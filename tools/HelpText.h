#pragma once
// The manual page of the tool, shown under `x509-auth --help`.

namespace x509auth_tool {

inline constexpr const char* k_help_footer = R"help(
DESCRIPTION
  Shows which X.509 client certificates this machine offers to programs that
  use libx509auth, signs and decrypts with their private keys, and explains
  why a certificate you expect is not offered (doctor).

  Certificates come from BASE/certs (PEM or DER files; the key of certs/NAME
  is keys/NAME.key, possibly password-protected) and from PKCS#11 tokens.

COMMANDS
  list [--json]      The offered certificates: a table (short thumbprint,
                     subject, issuer, source, key with "(no key file)",
                     "(key mismatch)" or "(key unreadable)" when a key file
                     cannot serve, expiry marked "in N days" under 30 days;
                     coloured on a terminal unless NO_COLOR is set; a
                     certificate found twice is listed once), or a JSON array
                     of objects with the keys thumbprint, subject, issuer,
                     not_before, not_after, not_before_iso, not_after_iso,
                     source (file|smartcard|other), key_algorithm
                     (rsa|ec|other), key_path and chain (leaf first).
  chain THUMBPRINT [--pem]
                     The chain's thumbprints and subjects, leaf first; --pem
                     writes the leaf and the CA certificates the library
                     hands out.
  sign THUMBPRINT [--hash sha1|sha256|sha384|sha512] [--in FILE|-] [--out FILE]
       [--pss]       Hashes the input (default: sha256 of stdin), signs the
                     digest (RSA PKCS#1 v1.5 or ECDSA; --pss: RSA-PSS with a
                     salt as long as the digest), verifies the signature
                     with the certificate's public key; hex on stdout, or
                     raw to --out.
  decrypt THUMBPRINT --padding pkcs1|oaep [--in FILE|-] [--out FILE]
                     Decrypts with the certificate's RSA key. The input is
                     one ciphertext (an input over 64 KiB is refused); a new
                     --out file is made readable by its owner only.
  show THUMBPRINT    Opens the certificate in the desktop's viewer
                     (gcr-viewer); fails when there is no display.
  doctor [--json]    One report per entry of every certs directory and per
                     token certificate: offered or not, and why.
  tls HOST:PORT --cert THUMBPRINT [--CAfile FILE] [--servername NAME]
      [--tls1_2|--tls1_3] [--send TEXT] [--token-key library|export]
      [--timeout SECONDS] [--allow-no-client-auth]
                     A TLS handshake authenticated with the certificate,
                     through the built-in x509auth OpenSSL provider (or, with
                     --token-key export, a token key exported by the
                     library): prints the version, cipher, signature scheme,
                     the server's subject and verification, and whether the
                     server accepted the client certificate. A server that
                     asks for no client certificate is a failure unless
                     --allow-no-client-auth is given. --timeout (default 15)
                     bounds connecting, reading and writing.

DOCTOR
  Reasons a certificate is not offered:
    not-a-certificate   the entry is neither a PEM nor a DER certificate
    unreadable          the entry or the certs directory cannot be read (the
                        system's reason is given)
    key-usage           neither TLS client authentication (extended key
                        usage) nor digital signature (key usage) is allowed
    chain               the chain or thumbprint could not be built; OpenSSL's
                        verification error is given (add the issuing CA with
                        --add-ca, or install it in the system's CA store)
    no-certs-directory  a base directory has no certs directory
    scan-stopped        the status of this entry cannot be taken (a looping
                        link, a target you may not see): the library's scan
                        of the folder ends here
    not-scanned         an entry after the one where the scan stopped (which
                        entry, and why, is given)
  Informational, given with the chain error they cause:
    expired, not-yet-valid
  Offered, but worth knowing:
    duplicate           the same certificate seen before (which one sign,
                        decrypt and tls use is named)
    key-missing         the key file is missing: signing will fail
    key-mismatch        the key file is another certificate's key
  Warnings, whatever the offering (listed under "warning", and in --json
  under "warnings", their texts in "details"):
    key-file-open       the key file is open to its group or others (ssh
                        refuses such a key): chmod 600 it
    writable-folder     its group or others can write to a certs or keys
                        folder, and so plant or replace certificates or keys
  list and sign warn about a key file open to others too.
  The key of a file certificate:
    missing, plain, encrypted (password not checked), unreadable,
    does-not-match; a token certificate's key is "token" (seen at login).
  TLS readiness: tls1.2 and tls1.3 for EC keys and RSA key files; for an RSA
  key on a token, tls1.3 when the token offers CKM_RSA_PKCS_PSS or
  CKM_RSA_X_509 (TLS 1.3 signs RSA with RSA-PSS only).

DIRECTORIES
  --dir BASE and --home-dir REL may be repeated. With neither, the tool looks
  in ~/.x509-auth (certificates in ~/.x509-auth/certs, keys in
  ~/.x509-auth/keys). A --dir that does not exist, is not a folder or is a
  certs folder itself is warned about.

SMART CARDS
  The PKCS#11 module is --module PATH, else $X509AUTH_MODULE, else Debian's
  OpenSC module (/usr/lib/x86_64-linux-gnu/pkcs11/opensc-pkcs11.so) when it
  is installed, else none (file certificates only). Both take an absolute
  path or the word none (no module); a relative value is a usage error.
  Nothing is ever loaded from the working directory.

PINS AND PASSWORDS
  On a terminal the tool asks once per secret, without echo, naming the key
  file or the token (and the tries left when the token reports them).
  --pin-env VAR / --password-env VAR take the answer from the environment;
  --pin-fd N / --password-fd N read one line from descriptor N per prompt.
  With no terminal and no source the prompt is cancelled and the tool says
  which prompt went unanswered. A wrong password or PIN is said as such.

OUTPUT
  A command prints its result on stdout and nothing else on success. A
  write that fails (a full disk, a file-size limit) fails the command, and
  an incomplete --out file is removed. Names from certificates, tokens and
  file names are shown with control characters escaped (\x1b, \n); JSON
  output keeps them, in JSON's own escapes. The
  library's log lines are kept: when the command fails, its error lines are
  shown indented under the one-line failure. -v shows every line as it comes
  ("x509-auth: [warning] ..."); -q shows only the result and the failure.

THUMBPRINT
  40 hex digits (any case, colons allowed) or a unique prefix of at least 6.
  An unknown or ambiguous prefix is an error that lists the candidates.

EXIT STATUS
  0    success (warnings may have been printed)
  1    the operation failed (not found, not offered, cancelled prompt, wrong
       password or PIN, a library result code, printed with its meaning, a
       TLS handshake that failed or was not asked for a certificate)
  2    usage error (unknown command or option, bad argument)
  130  interrupted by Ctrl-C (the tool ends by the signal; the shell reports
       128 + 2; SIGTERM gives 143)

EXAMPLES
  x509-auth list
  x509-auth --dir ./pki doctor
  echo hello | x509-auth --pin-env PIN sign 3f2a9c --hash sha256
  x509-auth --add-ca ca.pem chain 3f2a9c --pem > chain.pem
  x509-auth --add-ca ca.pem tls localhost:8443 --cert 3f2a9c --CAfile server-ca.pem
  x509-auth help sign
)help";

}  // namespace x509auth_tool
