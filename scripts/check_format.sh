#!/usr/bin/env bash
# Fails when a C or C++ source file is not laid out as .clang-format says,
# naming each such file and the command that fixes it. With no argument it
# checks the project's own folders; a test passes a directory of its own.
set -euo pipefail
root="${1:-$(cd "$(dirname "$0")/.." && pwd)}"
formatter="${CLANG_FORMAT:-clang-format}"
if ! command -v "$formatter" > /dev/null; then
  echo "check_format: $formatter not found (install the clang-format package)" >&2
  exit 2
fi

folders=()
for folder in include src common provider pkcs11 tools tests fuzz bench; do
  [ -d "$root/$folder" ] && folders+=("$root/$folder")
done
if [ ${#folders[@]} -eq 0 ]; then
  echo "check_format: no source folders under $root" >&2
  exit 2
fi

files=()
while IFS= read -r -d '' file; do files+=("$file"); done \
  < <(find "${folders[@]}" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print0 | sort -z)

# One run over every file; --dry-run reports each place that differs as
# "file:line:column: error: code should be clang-formatted".
mapfile -t unformatted < <("$formatter" --dry-run "${files[@]}" 2>&1 |
  sed -nE 's/^(.*):[0-9]+:[0-9]+: (error|warning): code should be clang-formatted.*/\1/p' | sort -u)

for file in "${unformatted[@]}"; do
  echo "check_format: ${file#"$root"/} is not formatted; run: clang-format -i ${file#"$root"/}" >&2
done
if [ ${#unformatted[@]} -ne 0 ]; then
  echo "check_format: ${#unformatted[@]} of ${#files[@]} files not formatted" >&2
  exit 1
fi
echo "check_format: ${#files[@]} files formatted as .clang-format says"
