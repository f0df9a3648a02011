// The shared-memory table and the trace.

#include "bench/Entries.h"
#include "bench/Measure.h"
#include "platform/Brisklog/TextTrace.h"
#include "platform/Brisklog/TracePoint.h"
#include "platform/Vasta/Reader.h"
#include "platform/Vasta/Table.h"

namespace Bench {
namespace {

using Table = Vasta::Table<Ostra::OstraConfigEntry>;

Vasta::TableOptions anonymous() {
  Vasta::TableOptions options;
  options.name = "bench";
  return options;
}

void writeAll(Table& table, const std::vector<Ostra::OstraConfigEntry>& entries) {
  for (const auto& entry : entries) {
    table.is(entry);
  }
}

void tableInsert(benchmark::State& state) {
  const auto count = argument(state);
  const auto entries = makeEntries(count);
  for (auto _ : state) {
    Table table{anonymous()};
    timeEach(state, count, [&] { writeAll(table, entries); });
    require(table.size() == count, "every record is in the table");
  }
}

void tableOverwrite(benchmark::State& state) {
  const auto count = argument(state);
  auto entries = makeEntries(count);
  Table table{anonymous()};
  writeAll(table, entries);
  shuffle(entries, 2);
  std::uint32_t generation = 0;
  for (auto _ : state) {
    ++generation;
    for (auto& entry : entries) {
      entry.entryId = generation;
    }
    timeEach(state, count, [&] { writeAll(table, entries); });
    const auto* const found = table.find(entries[count / 2].flowKey);
    require(found != nullptr && found->entryId == generation, "every record is overwritten");
  }
}

// Looks all records up by lookup(key), which returns the entry id.
template <class Lookup>
void lookUpAll(benchmark::State& state, std::vector<Ostra::OstraConfigEntry> entries,
               Lookup lookup) {
  shuffle(entries, 2);
  for (auto _ : state) {
    std::uint64_t sum = 0;
    timeEach(state, entries.size(), [&] {
      for (const auto& entry : entries) {
        sum += lookup(entry.flowKey);
      }
    });
    require(sum == entries.size() * (entries.size() + 1) / 2, "every record is found");
  }
}

void tableFind(benchmark::State& state) {
  const auto entries = makeEntries(argument(state));
  Table table{anonymous()};
  writeAll(table, entries);
  lookUpAll(state, entries, [&](const Ostra::OstraKey& key) { return table.find(key)->entryId; });
}

void tableReaderCopy(benchmark::State& state) {
  const auto entries = makeEntries(argument(state));
  Table table{anonymous()};
  writeAll(table, entries);
  Vasta::Reader<Ostra::OstraConfigEntry> reader{table};
  Ostra::OstraConfigEntry copy;
  lookUpAll(state, entries,
            [&](const Ostra::OstraKey& key) { return reader.find(key, copy) ? copy.entryId : 0; });
}

constinit Brisklog::TraceHandle traceHandle{"Bench"};
constinit Brisklog::TracePoint traceTwo{traceHandle, 5, "Bench::", "trace", " value:%s name:%s"};

void traceRing(benchmark::State& state) {
  std::uint64_t value = 0;
  for (auto _ : state) {
    traceTwo(++value, 7U);
  }
}

// The cost of a trace text whose level is off: one check.
void traceTextOff(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(traceHandle.enabled(5));
  }
}

const bool registered = [] {
  registerSizes("BM_TableIs", tableOverwrite);
  registerSizes("BM_TableInsert", tableInsert);
  registerSizes("BM_TableFind", tableFind);
  registerSizes("BM_TableReaderCopy", tableReaderCopy);
  benchmark::RegisterBenchmark("BM_TraceRing", traceRing);
  benchmark::RegisterBenchmark("BM_TraceTextOff", traceTextOff);
  return true;
}();

}  // namespace
}  // namespace Bench
