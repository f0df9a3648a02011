// The resident memory that a flow takes, by what holds it.

#include <malloc.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "Ostra/FlowUtil.h"
#include "Ostra/OstraStatusSm.h"
#include "Ostra/StatePaths.h"
#include "Ostra/private/FlowIndex.h"
#include "bench/Library.h"
#include "bench/Measure.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace Bench {
namespace {

// Bytes of this process that are in physical memory, including shared memory.
double residentBytes() {
  std::ifstream statm{"/proc/self/statm"};
  double total = 0;
  double resident = 0;
  statm >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// The resident memory that fill() adds, divided by the number of flows.
template <class Fill>
double bytesEach(std::size_t count, Fill fill) {
  const double before = residentBytes();
  fill();
  return (residentBytes() - before) / static_cast<double>(count);
}

double rowBytes(Ostra::OstraConfig& table, const std::vector<Ostra::OstraConfigEntry>& entries) {
  return bytesEach(entries.size(), [&] {
    for (const auto& entry : entries) {
      table.entryIs(entry);
    }
  });
}

void memory(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  const auto entries = makeEntries(count);
  for (auto _ : state) {
    malloc_trim(0);  // or memory that other benchmarks have freed would be reused and not seen
    Library library;
    const auto hwStatus = Korm::makePtr<OpenFlowTable::HwStatus>(Ostra::p4rtName);
    const auto row = rowBytes(*library.table, entries);
    // The state machine fills its index and Corvex together. So an index of the same keys is
    // measured by itself, and subtracted below.
    Ostra::FlowIndex index;
    const auto indexes = bytesEach(count, [&] {
      for (const auto& entry : entries) {
        index.handleIs(Ostra::HashedKey{entry.flowKey}, entry.entryHandle);
      }
    });
    Korm::Ptr<Ostra::OstraSm> sm;
    const auto both = bytesEach(count, [&] { sm = library.makeSm(); });
    const auto published = bytesEach(count, [&] {
      for (const auto& entry : entries) {
        hwStatus->flowStatsIs(Ostra::buildFlowName(entry.entryHandle));
      }
    });
    Korm::Ptr<Ostra::OstraStatusSm> statusSm;
    const auto reactors = bytesEach(count, [&] {
      statusSm = Ostra::ostraStatusSmFactory(hwStatus, library.batchStatus, library.statusInfo,
                                             nullptr, nullptr);
    });
    require(library.hwConfig->flowEntries().size() == count, "every entry has its flow");
    require(statusSm->flowStats().size() == count, "every flow is watched");
    state.counters["row"] = row;
    state.counters["indexes"] = indexes;
    state.counters["corvex"] = both - indexes;
    state.counters["status"] = published;
    state.counters["reactors"] = reactors;
    state.counters["total"] = row + both + published + reactors;
  }
}

const bool registered = [] {
  for (const int count : {100'000, 1'000'000}) {
    benchmark::RegisterBenchmark("BM_Memory", memory)->Arg(count)->Iterations(1);
  }
  return true;
}();

}  // namespace
}  // namespace Bench
