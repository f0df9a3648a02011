// A controller's write from end to end in one process: the service's table write, the library, the
// hardware agent's answer and the result in the batch status. Writes come in batches of 64.

#include <algorithm>
#include <span>
#include <vector>

#include "bench/Writes.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"

namespace Bench {
namespace {

using Sim::Op;

struct Switch {
  explicit Switch(std::size_t count) : entries{makeEntries(count)} {
    mapPorts(service);
    require(!service.start().failure, "the library starts");
  }

  double insertAll() { return writeAll(Op::insert_); }
  double modifyAll() { return writeAll(Op::modify_); }
  double deleteAll() { return writeAll(Op::delete_); }
  // The time of one write.
  double writeAll(Op op) {
    double took = 0;
    std::vector<Sim::Update> batch;
    forEachBlock(entries, [&](std::span<const Ostra::OstraConfigEntry> some) {
      batch.clear();
      for (const auto& entry : some) {
        batch.push_back(Sim::Update::flow(op, 0, entry));
      }
      const double start = processorTime();
      const auto results = service.apply(batch);
      took += processorTime() - start;
      require(std::all_of(results.begin(), results.end(),
                          [](const Sim::Result& result) { return result.succeeded(); }),
              "every write succeeds");
    });
    return took / static_cast<double>(entries.size());
  }
  [[nodiscard]] const OpenFlowTable::CorvexHwConfig& corvex() const { return *service.hwConfig(); }

  std::vector<Ostra::OstraConfigEntry> entries;
  Sim::Service service;
  Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
};

// An audit of everything that is stored, from the rows to the hardware, that finds nothing.
void audit(benchmark::State& state) {
  const std::size_t count = argument(state);
  Switch side{count};
  side.insertAll();
  for (auto _ : state) {
    timeEach(state, 1, [&] {
      const auto report = side.service.audit();
      require(report && report->flows == count && report->findings.empty(), "all is well");
    });
  }
}

const bool registered = [] {
  registerSizes("BM_WriteInsert", timeInsert<Switch>);
  registerSizes("BM_WriteModify", timeModify<Switch>);
  registerSizes("BM_WriteDelete", timeDelete<Switch>);
  benchmark::RegisterBenchmark("BM_Audit", audit)
      ->Arg(100'000)
      ->Iterations(3)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  return true;
}();

}  // namespace
}  // namespace Bench
