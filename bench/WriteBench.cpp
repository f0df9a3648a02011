// A controller's write from end to end in one process: the service's table write, the library, the
// hardware agent's answer and the result in the batch status. Writes come in batches of 64.

#include <algorithm>
#include <span>
#include <vector>

#include "bench/Entries.h"
#include "bench/Measure.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"

namespace Bench {
namespace {

using Sim::Op;

struct Switch {
  explicit Switch(std::size_t count) : entries{makeEntries(count)} {
    for (std::uint32_t port = 1; port <= ports; ++port) {
      service.portIs(port, Interface::IntfId{"Ethernet" + std::to_string(port)});
    }
    require(!service.start().failure, "the library starts");
  }

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
  [[nodiscard]] std::size_t flows() const { return service.hwConfig()->flowEntries().size(); }

  std::vector<Ostra::OstraConfigEntry> entries;
  Sim::Service service;
  Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
};

void writeInsert(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    Switch side{count};
    state.SetIterationTime(side.writeAll(Op::insert_));
    require(side.flows() == count, "every entry has its flow");
  }
}

void writeModify(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    Switch side{count};
    side.writeAll(Op::insert_);
    for (auto& entry : side.entries) {
      entry.actions.setDscpIs(9, true);
    }
    shuffle(side.entries, 2);
    state.SetIterationTime(side.writeAll(Op::modify_));
    const auto flows = side.service.flows();
    require(flows.size() == count && flows.back().flow->actions().setDscp() == 9,
            "every flow is rewritten");
  }
}

void writeDelete(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    Switch side{count};
    side.writeAll(Op::insert_);
    shuffle(side.entries, 2);
    state.SetIterationTime(side.writeAll(Op::delete_));
    require(side.flows() == 0, "every flow is gone");
  }
}

// The comparison of everything that is stored, rows to hardware, where all is well.
void audit(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  Switch side{count};
  side.writeAll(Op::insert_);
  for (auto _ : state) {
    timeEach(state, 1, [&] {
      const auto report = side.service.audit();
      require(report && report->flows == count && report->findings.empty(), "all is well");
    });
  }
}

const bool registered = [] {
  registerSizes("BM_WriteInsert", writeInsert);
  registerSizes("BM_WriteModify", writeModify);
  registerSizes("BM_WriteDelete", writeDelete);
  benchmark::RegisterBenchmark("BM_Audit", audit)
      ->Arg(100'000)
      ->Iterations(3)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  return true;
}();

}  // namespace
}  // namespace Bench
