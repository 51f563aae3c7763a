#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang in build-fuzz/, writes their seed
# corpora from the test PKI, replays every saved regression input, then runs
# each harness for SECONDS (default 30), two at a time. Any crash, leak,
# timeout or memory blow-up fails the script. Usage:
#   bash fuzz/run-fuzzers.sh [SECONDS] [HARNESS...]
# The corpora grow in build-fuzz/corpus/<harness>; the logs, with libFuzzer's
# final statistics, are build-fuzz/logs/<harness>.log.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

seconds=${1:-30}
shift || true
harnesses=("$@")
if [ ${#harnesses[@]} -eq 0 ]; then
  harnesses=(fuzz_cert_file fuzz_key_file fuzz_add_ca fuzz_pem_to_der fuzz_sign_decrypt fuzz_pkcs11)
fi

build="$root/build-fuzz"
CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DX509AUTH_FUZZ=ON -DX509AUTH_BUILD_TESTS=OFF -DX509AUTH_BUILD_BENCH=OFF \
  -DX509AUTH_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target fuzzers

rm -rf "$build/seeds"
"$build/fuzz/fuzz_make_seeds" "$build/seeds"
mkdir -p "$build/logs" "$build/artifacts"
# The harnesses' host directories go here, so that a process that ends
# abruptly (a finding, a timeout) leaves nothing in /tmp.
export TMPDIR="$build/tmp"
rm -rf "$TMPDIR"
mkdir -p "$TMPDIR"

# A hang of 25 s on one input (a few ms is usual; the margin is for a busy
# machine) or 2 GB of memory is a finding, not a wait.
# intercept_tls_get_addr=0 for the reason scripts/test.sh gives.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=1:intercept_tls_get_addr=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
limits=(-timeout=25 -rss_limit_mb=2048 -malloc_limit_mb=1024)

# Every saved regression input, once each.
for harness in "${harnesses[@]}"; do
  regressions="$root/fuzz/regressions/$harness"
  if [ -d "$regressions" ] && [ -n "$(ls -A "$regressions")" ]; then
    echo "fuzz: replaying $(ls "$regressions" | wc -l) regression input(s) for $harness"
    "$build/fuzz/$harness" "${limits[@]}" "$regressions"/* >"$build/logs/$harness.replay.log" 2>&1 || {
      cat "$build/logs/$harness.replay.log"
      echo "fuzz: $harness failed on a regression input" >&2
      exit 1
    }
  fi
done

run_one() {
  local harness=$1
  mkdir -p "$build/corpus/$harness"
  if "$build/fuzz/$harness" "${limits[@]}" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/$harness-" \
      "$build/corpus/$harness" "$build/seeds/$harness" >"$build/logs/$harness.log" 2>&1; then
    echo "fuzz: $harness: $(grep -E '^stat::number_of_executed_units' "$build/logs/$harness.log" | awk '{print $2}') executions in ${seconds} s," \
      "$(grep -E '(DONE|INITED) +cov' "$build/logs/$harness.log" | tail -1 | grep -oE 'cov: [0-9]+ ft: [0-9]+')"
  else
    tail -60 "$build/logs/$harness.log"
    echo "fuzz: $harness FAILED; see $build/logs/$harness.log and $build/artifacts/" >&2
    return 1
  fi
}

# Two at a time: the harnesses are single-threaded.
failed=0
pids=()
for harness in "${harnesses[@]}"; do
  run_one "$harness" &
  pids+=($!)
  if [ ${#pids[@]} -ge 2 ]; then
    wait "${pids[0]}" || failed=1
    pids=("${pids[@]:1}")
  fi
done
for pid in "${pids[@]}"; do wait "$pid" || failed=1; done
rm -rf "$TMPDIR"
exit $failed
