// Runs every benchmark, then prints each benchmark's median time over its
// floor's, so that the ratios hold on a noisy machine.
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* pointer, size_t size);

namespace {

std::atomic<long> g_allocations{0};

struct RatioSpec {
  std::string label, subject, floor;
  double goal;
};

std::vector<RatioSpec>& ratios() {
  static std::vector<RatioSpec> list;
  return list;
}

// Keeps the time of every repetition of every benchmark, by name.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Iteration && run.iterations > 0)
        times_[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
    ConsoleReporter::ReportRuns(runs);
  }

  double median(const std::string& name) const {
    auto it = times_.find(name);
    if (it == times_.end() || it->second.empty()) return 0;
    std::vector<double> sorted = it->second;
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() / 2];
  }

 private:
  std::map<std::string, std::vector<double>> times_;
};

}  // namespace

extern "C" void* malloc(size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(count, size);
}

extern "C" void* realloc(void* pointer, size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(pointer, size);
}

namespace bench {

long allocations() { return g_allocations.load(std::memory_order_relaxed); }

Ratio::Ratio(const char* label, const char* subject, const char* floor, double goal) {
  ratios().push_back({label, subject, floor, goal});
}

}  // namespace bench

int main(int argc, char** argv) {
  // Repetitions of a benchmark and of its floor are interleaved at random,
  // so that a slow phase of the machine falls on both alike.
  std::vector<char*> args(argv, argv + argc);
  std::string repetitions = "--benchmark_repetitions=7";
  std::string interleaving = "--benchmark_enable_random_interleaving=true";
  auto given = [&](const std::string& flag) {
    for (char* arg : args)
      if (std::string(arg).rfind(flag.substr(0, flag.find('=')), 0) == 0) return true;
    return false;
  };
  for (std::string* flag : {&repetitions, &interleaving})
    if (!given(*flag)) args.insert(args.begin() + 1, &(*flag)[0]);
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;

  CollectingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  printf("\n%-58s %12s %12s %7s %6s\n", "ratio (median of repetitions)", "subject ns", "floor ns",
         "ratio", "goal");
  for (const auto& ratio : ratios()) {
    double subject = reporter.median(ratio.subject), floor = reporter.median(ratio.floor);
    if (subject == 0 || floor == 0) continue;  // filtered out
    printf("%-58s %12.1f %12.1f %6.3fx %5.2fx\n", ratio.label.c_str(), subject, floor,
           subject / floor, ratio.goal);
  }
  return 0;
}
