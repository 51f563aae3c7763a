#pragma once
// The main of the benchmark programs that make their material first: none
// of it is made inside a benchmark, so that a profile of one benchmark
// (callgrind --toggle-collect) holds its loop alone.
#include <benchmark/benchmark.h>

namespace x509auth_bench {

// Runs the benchmarks the command line selects after |prepare| made what
// they use.
template <class Prepare>
int RunBenchmarks(int argc, char** argv, Prepare prepare) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  prepare();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace x509auth_bench
