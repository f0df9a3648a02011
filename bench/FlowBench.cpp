// The library's share of a flow write: the time that it takes to handle a key whose row the service
// has just written.

#include <span>

#include "bench/Library.h"
#include "bench/Writes.h"

namespace Bench {
namespace {

// A state machine that does not hear of changes from its table: the benchmark calls it.
struct FlowSide {
  explicit FlowSide(std::size_t count) : entries{makeEntries(count)}, sm{library.makeSm()} {
    sm->hasNotificationActiveIs(false);
  }

  // Writes the rows by write(entry) and has the library handle them, in batches of 64. Returns the
  // library's time for one row. Rows that are `stored` already are prefetched, as by the service.
  template <class Write>
  double run(Write write, bool stored) {
    double took = 0;
    forEachBlock(entries, [&](std::span<const Ostra::OstraConfigEntry> batch) {
      std::vector<const Ostra::OstraKey*> keys;
      for (const auto& entry : batch) {
        write(entry);
        keys.push_back(&entry.flowKey);
      }
      const double start = processorTime();
      if (stored) {
        sm->prefetch(keys);
      }
      for (const Ostra::OstraKey* const key : keys) {
        sm->handleFlowConfig(*key);
      }
      took += processorTime() - start;
    });
    return took / static_cast<double>(entries.size());
  }
  double insertAll() {
    return run([this](const auto& entry) { library.table->entryIs(entry); }, false);
  }
  double modifyAll() {
    return run([this](const auto& entry) { library.table->entryIs(entry); }, true);
  }
  double deleteAll() {
    return run([this](const auto& entry) { library.table->entryDel(entry.flowKey); }, true);
  }
  [[nodiscard]] const OpenFlowTable::CorvexHwConfig& corvex() const { return *library.hwConfig; }
  [[nodiscard]] std::size_t flows() const { return corvex().flowEntries().size(); }

  Library library;
  std::vector<Ostra::OstraConfigEntry> entries;
  Korm::Ptr<Ostra::OstraSm> sm;
};

// The slowest insert while all grows from empty: the service's table write and the library's work
// together.
void worstInsert(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    slowestOf(state, count, [&](auto&& timed) {
      FlowSide side{count};
      side.sm->hasNotificationActiveIs(true);
      for (const auto& entry : side.entries) {
        timed([&] { side.library.table->entryIs(entry); });
      }
      require(side.flows() == count, "every entry has its flow");
    });
  }
}

// One way to spoil an entry for each kind of check.
struct Refusal {
  const char* name;
  void (*spoil)(Ostra::OstraConfigEntry&);
};
constexpr Refusal refusals[] = {
    {"port", [](Ostra::OstraConfigEntry& entry) { entry.flowKey.ingressPortIs(0, 0xFFFFFFFF); }},
    {"etherTypeMask", [](Ostra::OstraConfigEntry& entry) { entry.flowKey.etherTypeIs(0, 0xFF00); }},
    {"contradiction",
     [](Ostra::OstraConfigEntry& entry) {
       entry.flowKey.etherTypeIs(0x0800, 0xFFFF);
       entry.flowKey.isIpPacketIs(false, true);
     }},
    {"notIp",
     [](Ostra::OstraConfigEntry& entry) {
       entry.flowKey.etherTypeIs(0x88CC, 0xFFFF);
       entry.flowKey.givenIs(Ostra::MatchFieldId::ip4Dst_, false);
       entry.flowKey.givenIs(Ostra::MatchFieldId::ip4Src_, false);
       entry.flowKey.givenIs(Ostra::MatchFieldId::ip6Src_, false);
       entry.flowKey.dscpIs(1, 0x3F);
     }},
    {"outputPort", [](Ostra::OstraConfigEntry& entry) { entry.outputPortIs(0); }},
    {"group",
     [](Ostra::OstraConfigEntry& entry) {
       entry.groupGiven = true;
       entry.groupId = 7;
     }},
};

void flowRefused(benchmark::State& state, const Refusal& refusal) {
  constexpr std::size_t count = 10'000;
  for (auto _ : state) {
    FlowSide side{count};
    for (auto& entry : side.entries) {
      refusal.spoil(entry);
    }
    state.SetIterationTime(side.insertAll());
    require(side.flows() == 0, "every entry is refused");
  }
}

// Throws an entry error through that many stack frames, each with a string to destroy.
template <int frames>
[[gnu::noinline]] void throwThrough(P4Runtime::ValidationHelper& helper,
                                    const std::string& message) {
  const std::string local = message;
  if constexpr (frames == 1) {
    helper.throwEntryErrorException(1, P4Runtime::ErrorCode::notFound_, local);
  } else {
    throwThrough<frames - 1>(helper, local);
  }
}

// The least that a refusal costs: an entry error that is thrown, caught and reported. It passes as
// many frames as lie between most checks and handleFlowConfig().
void exceptionFloor(benchmark::State& state) {
  const auto batchStatus = Korm::makePtr<P4Runtime::BatchStatus>();
  const Korm::Ptr<P4Runtime::ValidationHelper> helper =
      Korm::makePtr<P4Runtime::DefaultValidationHelper>(batchStatus);
  constexpr std::size_t count = 10'000;
  for (auto _ : state) {
    timeEach(state, count, [&] {
      for (std::size_t i = 0; i < count; ++i) {
        try {
          throwThrough<4>(*helper, "Group id: 7 is not found");
        } catch (const P4Runtime::P4RuntimeExceptionBase& error) {
          error.report();
        }
      }
    });
  }
}

// Constructs a state machine over N rows and N Corvex flows. For 1 % of the rows the flow is
// missing, and 1 % of the flows have no row.
void reconcile(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  for (auto _ : state) {
    FlowSide side{count};
    side.insertAll();
    side.sm = nullptr;
    side.library.vrfCollection->delAll();
    const std::uint32_t hundredth = std::max(count / 100, 1U);
    for (std::uint32_t n = 0; n < hundredth; ++n) {
      side.library.hwConfig->flowEntryDel(Ostra::buildFlowName(n * 100 + 1));
      side.library.hwConfig->flowEntryIs(Ostra::buildFlowName(std::uint64_t{count} + n + 1), {}, {},
                                         {}, 0, {}, 0, 0, 0, false, true);
    }
    timeEach(state, 1, [&] { side.sm = side.library.makeSm(); });
    require(side.flows() == count, "the stale flows are gone and the missing ones there");
  }
}

const bool registered = [] {
  registerSizes("BM_FlowInsert", timeInsert<FlowSide>);
  registerSizes("BM_FlowModify", timeModify<FlowSide>);
  registerSizes("BM_FlowDelete", timeDelete<FlowSide>);
  registerWorst("BM_WorstInsert", worstInsert);
  for (const Refusal& refusal : refusals) {
    benchmark::RegisterBenchmark(
        (std::string{"BM_FlowRefused/"} + refusal.name).c_str(),
        [&refusal](benchmark::State& state) { flowRefused(state, refusal); })
        ->Iterations(5)
        ->UseManualTime();
  }
  benchmark::RegisterBenchmark("BM_FloorException", exceptionFloor)->Iterations(5)->UseManualTime();
  for (const int count : {1'000, 10'000, 100'000, 1'000'000}) {
    benchmark::RegisterBenchmark("BM_Reconcile", reconcile)
        ->Arg(count)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace
}  // namespace Bench
