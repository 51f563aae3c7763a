#!/usr/bin/env bash
# Runs every benchmark pair (library call and its floor, N = 10, 100, 1000
# certificates) and the peak-memory runs, then prints the table of ratios
# that the README's "Benchmarks" section shows. Output goes to bench-out/.
# Ratios are of CPU time, medians of nine repetitions run in random
# interleaving (so that a slow spell of the machine falls on both sides of a
# pair), within one run.
set -euo pipefail
cd "$(dirname "$0")/.."

out=bench-out
mkdir -p "$out"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j"$(nproc)" --target bench_api bench_token bench_listing_memory

# The benchmarks chdir into a working directory of their own.
bench_dir=$(pwd)/build/bench
"$bench_dir/bench_api" --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true \
  --benchmark_min_time=0.2 --benchmark_out="$(pwd)/$out/bench_api.json" \
  --benchmark_out_format=json "$@"
"$bench_dir/bench_token" --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true \
  --benchmark_min_time=0.2 --benchmark_out="$(pwd)/$out/bench_token.json" \
  --benchmark_out_format=json

: > "$out/memory.jsonl"
for n in 10 100 1000; do
  "$bench_dir/bench_listing_memory" "$n" >> "$out/memory.jsonl"
done

python3 scripts/bench_table.py "$out/bench_api.json" "$out/bench_token.json" "$out/memory.jsonl" | tee "$out/table.md"
