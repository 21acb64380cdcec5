#pragma once
// SARVODE_BENCH_ITERATIONS=N runs every benchmark for exactly N iterations
// (once, with no trial rounds), so that bench/instructions.py can count the
// instructions of a known number of iterations under callgrind.

#include <benchmark/benchmark.h>

#include <cstdlib>

inline void fixed_iterations(benchmark::internal::Benchmark *b) {
  if (const char *n = std::getenv("SARVODE_BENCH_ITERATIONS"))
    b->Iterations(std::atoll(n));
}
