#!/usr/bin/env bash
# The source checks the test command runs fail on what they exist to catch,
# and name it: an include of src/ that points up a layer, a file not laid out
# as .clang-format says, and an architecture map that names a file that is
# gone. Each runs on a small tree of its own.
# Usage: checks_name_what_they_refuse.sh <project root> layers|format|architecture
set -euo pipefail
root="$1"
which="$2"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

expect() {  # expect <status> <text> <command...>: fails unless both are seen
  local want_status="$1" want_text="$2"
  shift 2
  local status=0
  "$@" > "$work/out" 2>&1 || status=$?
  if [[ $status -ne $want_status ]] || ! grep -qF -- "$want_text" "$work/out"; then
    echo "FAIL: $* exited $status (wanted $want_status) and printed:" >&2
    cat "$work/out" >&2
    echo "(wanted a line with: $want_text)" >&2
    exit 1
  fi
}

case "$which" in
  layers)
    mkdir -p "$work/src/base" "$work/src/keystore"
    printf '#pragma once\n#include "keystore/KeyStore.h"\n' > "$work/src/base/Low.h"
    printf '#pragma once\n#include "base/Low.h"\n' > "$work/src/keystore/KeyStore.h"
    expect 1 "check_layers: base/Low.h:2 includes keystore/, a layer above base/" \
      bash "$root/scripts/check_layers.sh" "$work/src"
    mkdir -p "$work/src/extra"
    printf '#pragma once\n' > "$work/src/extra/Free.h"
    sed -i 's|keystore/KeyStore.h|base/Other.h|' "$work/src/base/Low.h"
    expect 1 "check_layers: src/extra/ has no place in the layers" \
      bash "$root/scripts/check_layers.sh" "$work/src"
    rm -r "$work/src/extra"
    expect 0 "every include of src/ points down" bash "$root/scripts/check_layers.sh" "$work/src"
    ;;
  format)
    mkdir -p "$work/src/base"
    cp "$root/.clang-format" "$work/.clang-format"
    printf 'int   Sum(int a,int b){return a+b;}\n' > "$work/src/base/Sum.cpp"
    expect 1 "check_format: src/base/Sum.cpp is not formatted; run: clang-format -i src/base/Sum.cpp" \
      bash "$root/scripts/check_format.sh" "$work"
    clang-format -i "$work/src/base/Sum.cpp"
    expect 0 "check_format: 1 files formatted as .clang-format says" \
      bash "$root/scripts/check_format.sh" "$work"
    ;;
  architecture)
    mkdir -p "$work/src/base" "$work/src/files" "$work/docs" "$work/scripts"
    cp "$root/scripts/check_layers.sh" "$work/scripts/"
    touch "$work/src/base/Thumbprint.h"
    {
      echo '`base <- files, smartcard <- cert <- store <- keystore <- capi`'
      echo '| `src/base/` | handles | itself |'
      echo '| `src/files/` | files | base |'
      echo 'Thumbprints are in `src/base/Thumbprint.h`, keys in `src/files/Gone.cpp`.'
    } > "$work/docs/architecture.md"
    expect 1 "check_architecture: docs/architecture.md names src/files/Gone.cpp, which does not exist" \
      bash "$root/scripts/check_architecture.sh" "$work"
    sed -i 's|, keys in `src/files/Gone.cpp`||' "$work/docs/architecture.md"
    mkdir -p "$work/src/extra"
    expect 1 "check_architecture: src/extra/ has no row in the layers table" \
      bash "$root/scripts/check_architecture.sh" "$work"
    rmdir "$work/src/extra"
    sed -i 's|base <- files, smartcard|base <- smartcard|' "$work/docs/architecture.md"
    expect 1 "does not state the layer order" bash "$root/scripts/check_architecture.sh" "$work"
    sed -i 's|base <- smartcard|base <- files, smartcard|' "$work/docs/architecture.md"
    expect 0 "every path named in docs/architecture.md exists" \
      bash "$root/scripts/check_architecture.sh" "$work"
    # In a git tree, each tracked top folder needs its row in the README.
    printf '| `src/base/` | handles |\n| `docs/` | the map |\n' > "$work/README.md"
    git -C "$work" init -q
    git -C "$work" add -A
    expect 1 "check_architecture: scripts/ has no row in the README's layout table" \
      bash "$root/scripts/check_architecture.sh" "$work"
    ;;
  *)
    echo "usage: $0 <project root> layers|format|architecture" >&2
    exit 2
    ;;
esac
echo "ok: the $which check names what it refuses"
