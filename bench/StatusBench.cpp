// The way of a hardware status into the batch status, and the reading of counters.

#include <string>

#include "Ostra/FlowUtil.h"
#include "Ostra/OstraCounter.h"
#include "Ostra/OstraStatusSm.h"
#include "Ostra/StatePaths.h"
#include "bench/Entries.h"
#include "bench/Measure.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace Bench {
namespace {

using OpenFlowTable::FlowStatus;

class ResultCounter final : public Korm::Notifiee<const P4Runtime::TransactionResult&> {
 public:
  explicit ResultCounter(P4Runtime::BatchStatus& batchStatus) {
    batchStatus.resultNotifiees().attach(*this);
  }
  void onAttribute(const P4Runtime::TransactionResult& result) override {
    ++results;
    failures += result.code == P4Runtime::ErrorCode::success_ ? 0 : 1;
  }
  std::size_t results = 0;
  std::size_t failures = 0;
};

struct Flow {
  std::uint64_t handle;
  Korm::Name name;
  std::uint32_t nameHash;
};

// Publishes the flows 1 to `count`, and returns them in random order.
std::vector<Flow> publishFlows(OpenFlowTable::HwStatus& status, std::uint32_t count) {
  std::vector<Flow> flows;
  for (std::uint32_t n = 0; n < count; ++n) {
    const Korm::Name name = Ostra::buildFlowName(n + 1);
    status.flowStatsIs(name, FlowStatus::pending_);
    flows.push_back({n + 1, name, Korm::HashedName{name}.hash()});
  }
  shuffle(flows);
  return flows;
}

// Changes the status of N flows in random order, and times the way of each into the batch status.
// As in the switch, the service opens the entries of a batch of 64 and closes them when they have
// their results.
void flowStatus(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  const auto hwStatus = Korm::makePtr<OpenFlowTable::HwStatus>(Ostra::p4rtName);
  const auto batchStatus = Korm::makePtr<P4Runtime::BatchStatus>();
  const std::vector<Flow> flows = publishFlows(*hwStatus, count);
  const auto sm = Ostra::ostraStatusSmFactory(hwStatus, batchStatus,
                                              Ostra::ostraStatusInfoFactory(), nullptr, nullptr);
  FlowStatus next = FlowStatus::programmed_;
  for (auto _ : state) {
    ResultCounter counter{*batchStatus};
    double took = 0;
    forEachBlock(flows, [&](std::span<const Flow> batch) {
      for (const Flow& flow : batch) {
        batchStatus->batchStatusEntryIs(flow.handle);
      }
      const double start = processorTime();
      for (const Flow& flow : batch) {
        hwStatus->flowStats({flow.name, flow.nameHash})->statusIs(next);
      }
      took += processorTime() - start;
      for (const Flow& flow : batch) {
        batchStatus->batchStatusEntryDel(flow.handle);
      }
    });
    state.SetIterationTime(took / count);
    const bool failing = next == FlowStatus::hardwareFull_;
    require(counter.results == count && counter.failures == (failing ? count : 0),
            "every change has its result");
    next = failing ? FlowStatus::programmed_ : FlowStatus::hardwareFull_;
  }
}

// Reads direct counters, each of which is the sum over several hardware units of 100,000 flows.
void counterRead(benchmark::State& state) {
  constexpr std::uint32_t count = 100'000;
  const auto units = argument(state);
  const auto dir = Korm::makePtr<Korm::Dir>("corvexhwstatusdir");
  for (std::size_t unit = 0; unit < units; ++unit) {
    const std::string name = "unit" + std::to_string(unit);
    const auto status = Korm::makePtr<OpenFlowTable::HwStatus>(name);
    for (std::uint32_t n = 0; n < count; ++n) {
      status->flowStatsIs(Ostra::buildFlowName(n + 1) + std::string{Ostra::flowCounterSuffix})
          .countersIs(n, 2 * std::uint64_t{n});
    }
    dir->entityIs(name, status);
  }
  const auto counters = Korm::makePtr<Ostra::FlowDirectCounterImpl>(dir);
  const auto order = shuffled(count);
  for (auto _ : state) {
    std::uint64_t packets = 0;
    timeEach(state, count * units, [&] {
      for (const std::uint32_t n : order) {
        packets += counters->getCounters(n + 1).packets;
      }
    });
    require(packets == units * (std::uint64_t{count} * (count - 1) / 2), "all counts are read");
  }
}

const bool registered = [] {
  registerSizes("BM_FlowStatus", flowStatus);
  benchmark::RegisterBenchmark("BM_CounterRead", counterRead)
      ->Arg(1)
      ->Arg(4)
      ->Arg(16)
      ->Iterations(2)
      ->UseManualTime();
  return true;
}();

}  // namespace
}  // namespace Bench
