// Runs the benchmarks and then prints each figure beside its target. Most targets are ratios to a
// floor, which is measured in the same run.

#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

// The longest time that a benchmark may take: in nanoseconds, or as a multiple of the time of
// another benchmark, or of two together.
struct Target {
  const char* benchmark;
  double limit;
  const char* floor = nullptr;  // none: `limit` is in nanoseconds
  const char* moreFloor = nullptr;
};

constexpr Target targets[] = {
    {"BM_FlowInsert/1000", 450},
    {"BM_FlowModify/1000", 400},
    {"BM_FlowDelete/1000", 0.4, "BM_FloorDelete/1000"},
    {"BM_FlowInsert/100000", 0.5, "BM_FloorInsert/100000"},
    {"BM_FlowModify/100000", 0.75, "BM_FloorOverwrite/100000"},
    {"BM_FlowDelete/100000", 0.4, "BM_FloorDelete/100000"},
    {"BM_WriteInsert/100000", 3, "BM_FloorInsert/100000"},
    {"BM_WriteModify/100000", 3, "BM_FloorOverwrite/100000"},
    {"BM_WriteDelete/100000", 3, "BM_FloorDelete/100000"},
    {"BM_FlowInsert/1000000", 3, "BM_FlowInsert/1000"},
    {"BM_FlowModify/1000000", 3, "BM_FlowModify/1000"},
    {"BM_FlowDelete/1000000", 3, "BM_FlowDelete/1000"},
    {"BM_WorstInsert/100000", 1'000'000},
    {"BM_WorstInsert/1000000", 1'000'000},
    {"BM_FlowRefused/port", 1, "BM_FloorException", "BM_FlowInsert/10000"},
    {"BM_FlowRefused/etherTypeMask", 1, "BM_FloorException", "BM_FlowInsert/10000"},
    {"BM_FlowRefused/contradiction", 1, "BM_FloorException", "BM_FlowInsert/10000"},
    {"BM_FlowRefused/notIp", 1, "BM_FloorException", "BM_FlowInsert/10000"},
    {"BM_FlowRefused/outputPort", 1, "BM_FloorException", "BM_FlowInsert/10000"},
    {"BM_FlowRefused/group", 1, "BM_FloorException", "BM_FlowInsert/10000"},
    {"BM_FlowStatus/100000", 300},
    {"BM_CounterRead/1", 150},
    {"BM_CounterRead/4", 150},
    {"BM_CounterRead/16", 150},
    {"BM_GroupRebuild/1", 25},
    {"BM_GroupRebuild/16", 25},
    {"BM_GroupRebuild/64", 25},
    {"BM_GroupRebuild/1024", 25},
    {"BM_Reconcile/100000", 100'000'000},
    {"BM_Audit/100000", 150'000'000},
    {"BM_TableIs/100000", 200},
    {"BM_TableFind/100000", 100},
    {"BM_TableReaderCopy/100000", 150},
    {"BM_TraceRing", 15},
    {"BM_TraceTextOff", 1},
};

// Prints the figures and keeps them for the targets.
class Figures final : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const std::string name = run.benchmark_name();
      // The rest of a name says how often the benchmark ran and by which clock.
      nanoseconds_[name.substr(0, name.find("/iterations:"))] =
          run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void printTargets() const {
    std::printf("\n%-28s %14s %10s %10s\n", "benchmark", "ns", "is", "target");
    for (const Target& target : targets) {
      const auto measured = of(target.benchmark);
      const auto floor = of(target.floor);
      const auto moreFloor = of(target.moreFloor);
      if (!measured || !floor || !moreFloor) {
        continue;  // left out by a filter
      }
      if (target.floor == nullptr) {
        std::printf("%-28s %14.1f %10s %10.0f  %s\n", target.benchmark, *measured, "", target.limit,
                    verdict(*measured <= target.limit));
      } else {
        const double ratio = *measured / (*floor + *moreFloor);
        std::printf("%-28s %14.1f %9.2fx %9.2fx  %s (of %s%s%s)\n", target.benchmark, *measured,
                    ratio, target.limit, verdict(ratio <= target.limit), target.floor,
                    target.moreFloor == nullptr ? "" : " and ",
                    target.moreFloor == nullptr ? "" : target.moreFloor);
      }
    }
  }

 private:
  // Nanoseconds. 0 if no benchmark is named, and nothing if it did not run.
  [[nodiscard]] std::optional<double> of(const char* benchmark) const {
    if (benchmark == nullptr) {
      return 0;
    }
    const auto found = nanoseconds_.find(benchmark);
    return found == nanoseconds_.end() ? std::nullopt : std::optional{found->second};
  }
  [[nodiscard]] static const char* verdict(bool met) { return met ? "met" : "not met"; }

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
