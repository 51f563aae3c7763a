#!/bin/sh
# Writes the manual page x509-auth.1 from the tool's own help: `x509-auth
# --help` (the options, the commands and the manual text under them) and
# each command's --help. There is no second copy of the text to keep in
# step; the build runs this with the tool it has just linked.
#   make-man-page.sh TOOL VERSION > x509-auth.1
set -eu
tool=$1
version=$2

# roff needs its escape character and lines starting with . or ' escaped.
escape() {
  sed -e 's/\\/\\e/g' -e "s/^\\([.']\\)/\\\\\\&\\1/"
}

main_help=$("$tool" --help)
summary=$(printf '%s\n' "$main_help" | sed -n '1s/^x509-auth: //p')
commands=$(printf '%s\n' "$main_help" |
  awk '/^Subcommands:/ {on = 1; next} on && /^  [a-z]/ {print $1} on && /^$/ {exit}')

printf '.TH X509-AUTH 1 "" "x509auth %s" "User Commands"\n' "$version"
printf '.SH NAME\nx509-auth \\- %s\n' "$summary"
printf '.SH SYNOPSIS\n.B x509-auth\n[\\fIGLOBAL OPTIONS\\fR] \\fICOMMAND\\fR [\\fIARGS\\fR]\n'

# Options and commands: one tagged paragraph each; the manual text under
# them (sections in capitals) as it is laid out on the terminal.
printf '%s\n' "$main_help" | escape | awk '
  function flush() {
    if (tag != "") { printf ".TP\n.B %s\n%s\n", tag, text }
    tag = ""; text = ""
  }
  NR <= 2 { next }
  /^Options:$/      { flush(); mode = "list"; print ".SH OPTIONS"; next }
  /^Subcommands:$/  { flush(); mode = "list"; print ".SH COMMAND SUMMARY"; next }
  mode == "list" && /^$/ { flush(); mode = ""; next }
  mode == "list" && /^                              / {
    sub(/^ +/, ""); text = (text == "" ? $0 : text " " $0); next
  }
  mode == "list" && /^  [^ ]/ {
    flush()
    line = substr($0, 3)
    split_at = match(line, /  +[^ ]/)
    if (split_at > 0) {
      tag = substr(line, 1, split_at - 1)
      text = substr(line, split_at); sub(/^ +/, "", text)
    } else { tag = line; text = "" }
    gsub(/-/, "\\-", tag)
    next
  }
  /^[A-Z][A-Z ]+$/ { flush(); if (pre) print ".fi"; printf ".SH %s\n.nf\n", $0; pre = 1; mode = "text"; next }
  mode == "text" { sub(/^  /, ""); print; next }
  END { flush(); if (pre) print ".fi" }
'

# Every command's own help, as the terminal shows it.
printf '.SH COMMAND OPTIONS\n'
for command in $commands; do
  [ "$command" = help ] && continue
  printf '.SS x509-auth %s\n.nf\n' "$command"
  "$tool" "$command" --help | sed -n '3,$p' | sed '/^$/N;/^\n$/D' | escape
  printf '.fi\n'
done
printf '.SH SEE ALSO\n.BR openssl (1),\n.BR pkcs11-tool (1)\n'
