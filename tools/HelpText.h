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
)";

}  // namespace x509auth_tool
