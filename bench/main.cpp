// Runs the benchmarks and ends with their figures against the targets, most of which are given as a ratio to
// the floor measured in the same run.

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

// A target: an absolute time, or a multiple of what another benchmark took.
struct Target {
  const char* benchmark;
  double limit;
  const char* floor;  // null: `limit` is in nanoseconds
};

constexpr Target targets[] = {
    {"BM_FlowInsert/100000", 0.5, "BM_FloorInsert/100000"},
    {"BM_FlowModify/100000", 0.6, "BM_FloorOverwrite/100000"},
    {"BM_FlowDelete/100000", 0.5, "BM_FloorDelete/100000"},
    {"BM_WriteInsert/100000", 1.5, "BM_FloorInsert/100000"},
    {"BM_WriteModify/100000", 1.5, "BM_FloorOverwrite/100000"},
    {"BM_WriteDelete/100000", 1.5, "BM_FloorDelete/100000"},
    {"BM_FlowInsert/1000000", 3, "BM_FlowInsert/1000"},
    {"BM_FlowModify/1000000", 3, "BM_FlowModify/1000"},
    {"BM_FlowDelete/1000000", 3, "BM_FlowDelete/1000"},
    {"BM_WorstInsert/100000", 1'000'000, nullptr},
    {"BM_WorstInsert/1000000", 1'000'000, nullptr},
    {"BM_FlowStatus/100000", 300, nullptr},
    {"BM_CounterRead/1", 150, nullptr},
    {"BM_CounterRead/4", 150, nullptr},
    {"BM_CounterRead/16", 150, nullptr},
    {"BM_GroupRebuild/1", 25, nullptr},
    {"BM_GroupRebuild/16", 25, nullptr},
    {"BM_GroupRebuild/64", 25, nullptr},
    {"BM_GroupRebuild/1024", 25, nullptr},
    {"BM_Reconcile/100000", 100'000'000, nullptr},
    {"BM_TableIs/100000", 200, nullptr},
    {"BM_TableFind/100000", 100, nullptr},
    {"BM_TableReaderCopy/100000", 150, nullptr},
    {"BM_TraceRing", 15, nullptr},
    {"BM_TraceTextOff", 1, nullptr},
};

// Keeps the figures of a run beside printing them.
class Figures final : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const std::string name = run.benchmark_name();
      // Without what the library appends of iterations and clock.
      nanoseconds_[name.substr(0, name.find("/iterations:"))] =
          run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void printTargets() const {
    std::printf("\n%-28s %14s %10s %10s\n", "benchmark", "ns", "is", "target");
    for (const Target& target : targets) {
      const auto measured = nanoseconds_.find(target.benchmark);
      const auto floor =
          target.floor == nullptr ? nanoseconds_.end() : nanoseconds_.find(target.floor);
      if (measured == nanoseconds_.end() ||
          (target.floor != nullptr && floor == nanoseconds_.end())) {
        continue;  // left out by a filter
      }
      if (target.floor == nullptr) {
        std::printf("%-28s %14.1f %10s %10.0f  %s\n", target.benchmark, measured->second, "",
                    target.limit, measured->second <= target.limit ? "met" : "not met");
      } else {
        const double ratio = measured->second / floor->second;
        std::printf("%-28s %14.1f %9.2fx %9.2fx  %s (of %s)\n", target.benchmark, measured->second,
                    ratio, target.limit, ratio <= target.limit ? "met" : "not met", target.floor);
      }
    }
  }

 private:
  std::map<std::string, double> nanoseconds_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  Figures figures;
  benchmark::RunSpecifiedBenchmarks(&figures);
  figures.printTargets();
  return 0;
}
