#!/usr/bin/env bash
# The manual page says what --help says (every option and command of the
# tool and of each command), renders without a warning; the bash completion
# completes commands, options and thumbprint prefixes.
#   check_man_and_completion.sh TOOL MAN_PAGE_GZ COMPLETION WORK
set -euo pipefail
tool=$1 man_page=$2 completion=$3 work=$4
rm -rf "$work"
mkdir -p "$work"

rendered=$(MANWIDTH=200 man --warnings -l "$man_page" 2> "$work/man-warnings.txt")
[ ! -s "$work/man-warnings.txt" ] || { echo "man warns:"; cat "$work/man-warnings.txt"; exit 1; }
options() { "$@" --help | sed -n 's/^  \(-[^ ]*\).*/\1/p' | tr ',' '\n'; }
for command in "" list chain sign decrypt show doctor tls; do
  # shellcheck disable=SC2086
  for option in $(options "$tool" $command); do
    grep -qF -- "$option" <<< "$rendered" || { echo "the manual lacks $command $option"; exit 1; }
  done
done
for section in NAME SYNOPSIS OPTIONS DESCRIPTION "EXIT STATUS" DOCTOR; do
  grep -q "^$section" <<< "$rendered" || { echo "the manual lacks the section $section"; exit 1; }
done

# A base with one certificate, for the thumbprint completion.
base="$work/base"
mkdir -p "$base/certs" "$base/keys"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=Completed \
  -addext extendedKeyUsage=clientAuth -keyout "$base/keys/c.pem.key" -out "$base/certs/c.pem" \
  -days 30 2> /dev/null
thumbprint=$(openssl x509 -in "$base/certs/c.pem" -noout -fingerprint -sha1 | sed 's/.*=//; s/://g' |
  tr 'A-F' 'a-f')

complete_line() {
  # Completes the last word of |line| as bash would; prints the candidates.
  PATH="$(dirname "$tool"):$PATH" bash -c '
    source /usr/share/bash-completion/bash_completion
    source "$1"
    COMP_LINE=$2
    read -r -a COMP_WORDS <<< "$COMP_LINE"
    [[ $COMP_LINE == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMP_POINT=${#COMP_LINE}
    _x509_auth x509-auth "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf "%s\n" "${COMPREPLY[@]}"' _ "$completion" "$1"
}
expect() {
  local line=$1 wanted=$2 got
  got=$(complete_line "$line" | sort | tr '\n' ' ' | sed 's/ $//')
  [ "$got" = "$wanted" ] || { echo "completing '$line': got '$got', wanted '$wanted'"; exit 1; }
}
expect "x509-auth l" "list"
expect "x509-auth d" "decrypt doctor"
expect "x509-auth --pa" "--password-env --password-fd"
expect "x509-auth sign --p" "--password-env --password-fd --pin-env --pin-fd --pss"
expect "x509-auth sign --hash sha3" "sha384"
expect "x509-auth --dir $base sign ${thumbprint:0:4}" "$thumbprint"
expect "x509-auth --dir $base tls localhost:1 --cert ${thumbprint:0:3}" "$thumbprint"
expect "x509-auth help s" "show sign"
expect "x509-auth --module " "none"
expect "x509-auth --module /usr/lib/x86_64-linux-gnu/pkcs11/opensc-pkcs" \
  "/usr/lib/x86_64-linux-gnu/pkcs11/opensc-pkcs11.so"
echo "manual page and completion agree with --help"
