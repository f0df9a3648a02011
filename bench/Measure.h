// How the benchmarks measure.
#pragma once

#include <time.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <span>
#include <vector>

#include <benchmark/benchmark.h>

namespace Bench {

// The number of things that the benchmark is run with, or the second of two such numbers.
inline std::size_t argument(const benchmark::State& state, std::size_t at = 0) {
  return static_cast<std::size_t>(state.range(at));
}

// Ends the program when a benchmark did not do what it claims to measure.
inline void require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "benchmark failed: %s\n", what);
    std::abort();
  }
}

// Seconds of processor time that this thread has used, including its time in the kernel. The
// benchmarks run on one thread, so this is their running time without that of other processes.
inline double processorTime() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Reports the time of one operation. work() makes `operations` of them.
template <class Work>
void timeEach(benchmark::State& state, std::size_t operations, Work&& work) {
  const double start = processorTime();
  work();
  state.SetIterationTime((processorTime() - start) / static_cast<double>(operations));
}

// Calls work(batch) for each batch of 64 elements. The last batch may be smaller.
template <class T, class Work>
void forEachBlock(const std::vector<T>& all, Work&& work) {
  for (std::span<const T> left{all}; !left.empty();) {
    const auto batch = left.first(std::min<std::size_t>(64, left.size()));
    work(batch);
    left = left.subspan(batch.size());
  }
}

// Reports the time of the slowest operation. run(timed) makes each operation by timed(operation),
// and is called three times to make the same ones. The shortest of its three times counts for an
// operation: a step of growth is slow every time, a pause of a virtual machine is not.
template <class Run>
void slowestOf(benchmark::State& state, std::size_t operations, Run&& run) {
  std::vector<double> shortest(operations, std::numeric_limits<double>::infinity());
  for (int pass = 0; pass < 3; ++pass) {
    std::size_t next = 0;
    run([&](auto&& operation) {
      const double start = processorTime();
      operation();
      double& least = shortest.at(next++);
      least = std::min(least, processorTime() - start);
    });
    require(next == operations, "every operation is timed");
  }
  state.SetIterationTime(*std::max_element(shortest.begin(), shortest.end()));
}

// Registers a benchmark at each size, with a number of passes that keeps the whole run short.
template <class Function>
void registerSizes(const char* name, Function function) {
  struct Size {
    int flows;
    int passes;
  };
  for (const Size size :
       {Size{1'000, 100}, Size{10'000, 20}, Size{100'000, 3}, Size{1'000'000, 1}}) {
    benchmark::RegisterBenchmark(name, function)
        ->Arg(size.flows)
        ->Iterations(size.passes)
        ->UseManualTime()
        ->Unit(benchmark::kNanosecond);
  }
}

// Registers a benchmark of the slowest single operation among N.
inline void registerWorst(const char* name, void (*function)(benchmark::State&)) {
  benchmark::RegisterBenchmark(name, function)
      ->Arg(100'000)
      ->Arg(1'000'000)
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace Bench
