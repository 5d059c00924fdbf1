// Shared by the benchmarks: a count of heap allocations made in the process
// and the pairing of each benchmark with its raw floor.
#pragma once

#include <benchmark/benchmark.h>

#include <atomic>

namespace bench {

// Every malloc/calloc/realloc of the process, the library's included.
long allocations();

// Reports allocations per iteration of the timed loop as a counter.
class AllocationCounter {
 public:
  explicit AllocationCounter(benchmark::State& state) : state_(state), start_(allocations()) {}
  ~AllocationCounter() {
    state_.counters["allocs/iter"] = benchmark::Counter(
        static_cast<double>(allocations() - start_), benchmark::Counter::kAvgIterations);
  }

 private:
  benchmark::State& state_;
  long start_;
};

// Declares that `subject` is measured against `floor`; the ratio of their
// median times is printed after the run.
struct Ratio {
  Ratio(const char* label, const char* subject, const char* floor, double goal);
};

}  // namespace bench

#define COMMONL_RATIO(label, subject, floor, goal) \
  static bench::Ratio _ratio_##subject(label, #subject, #floor, goal)
