#!/usr/bin/env bash
# Keeps docs/architecture.md true where it can be checked: every file or
# folder it names in backticks exists, every folder of src/ has its row in the
# layers table, and its layer order is the one scripts/check_layers.sh
# enforces; and the README's layout table has a row for every folder the
# project tracks. A map that points at moved files misleads more than no map.
# Usage: check_architecture.sh [project root]
set -euo pipefail
root="${1:-$(dirname "$0")/..}"
doc="$root/docs/architecture.md"
status=0

if [[ ! -f "$doc" ]]; then
  echo "check_architecture: docs/architecture.md is missing" >&2
  exit 1
fi

# Paths in backticks that start with one of the project's top folders.
while read -r path; do
  if [[ ! -e "$root/$path" ]]; then
    echo "check_architecture: docs/architecture.md names $path, which does not exist" >&2
    status=1
  fi
done < <(grep -oE '`(src|include|tools|provider|pkcs11|common|tests|bench|fuzz|scripts|cmake|docs)/[^` ]*`' "$doc" |
  tr -d '`' | sort -u)

for dir in "$root"/src/*/; do
  folder=$(basename "$dir")
  if ! grep -qF "| \`src/$folder/\` |" "$doc"; then
    echo "check_architecture: src/$folder/ has no row in the layers table of docs/architecture.md" >&2
    status=1
  fi
done

# The README's layout table names every folder the project tracks.
if git -C "$root" rev-parse --is-inside-work-tree > /dev/null 2>&1; then
  while read -r folder; do
    if ! grep -qF "| \`$folder/" "$root/README.md"; then
      echo "check_architecture: $folder/ has no row in the README's layout table" >&2
      status=1
    fi
  done < <(git -C "$root" ls-files | grep / | cut -d/ -f1 | grep -v '^\.' | sort -u)
fi

order=$(grep -m1 -oE 'base <- [a-z, <-]+capi' "$root/scripts/check_layers.sh")
if ! grep -qF "\`$order\`" "$doc"; then
  echo "check_architecture: docs/architecture.md does not state the layer order \"$order\" of scripts/check_layers.sh" >&2
  status=1
fi

[[ $status -eq 0 ]] && echo "check_architecture: every path named in docs/architecture.md exists and its layers agree"
exit $status
