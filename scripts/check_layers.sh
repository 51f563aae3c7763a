#!/usr/bin/env bash
# Fails when a folder of src/ includes a folder above it. The layers, each
# allowed to include only itself and the folders to its left:
#   base <- files, smartcard <- cert <- store <- keystore <- capi
# (files and smartcard are side by side and do not include each other.)
# The build enforces the same through each component's include directories;
# this check names the offending line instead of a missing header.
set -euo pipefail
src="${1:-$(dirname "$0")/../src}"

declare -A allowed=(
  [base]="base"
  [files]="base files"
  [smartcard]="base smartcard"
  [cert]="base files smartcard cert"
  [store]="base files smartcard cert store"
  [keystore]="base files smartcard cert store keystore"
  [capi]="base files smartcard cert store keystore capi"
)

status=0
for dir in "$src"/*/; do
  folder=$(basename "$dir")
  if [[ -z "${allowed[$folder]+set}" ]]; then
    echo "check_layers: src/$folder/ has no place in the layers; add it to scripts/check_layers.sh" >&2
    status=1
    continue
  fi
  while IFS=: read -r file line text; do
    included=$(sed -E 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"([^/"]+)\/.*/\1/' <<<"$text")
    # Only src/'s own folders are layers; common/ headers sit below them all.
    [[ -d "$src/$included" ]] || continue
    if [[ " ${allowed[$folder]} " != *" $included "* ]]; then
      echo "check_layers: ${file#"$src"/}:$line includes $included/, a layer above $folder/" >&2
      status=1
    fi
  done < <(grep -sHnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"[^/"]+/' "$dir"* || true)
done
[[ $status -eq 0 ]] && echo "check_layers: every include of src/ points down or sideways within its layer"
exit $status
