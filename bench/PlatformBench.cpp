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

// Asks memory for the rows of these entries, as a service does that has a batch in its hands.
void expect(const Table& table, std::span<const Ostra::OstraConfigEntry> batch,
            Table::Purpose purpose) {
  for (const auto& entry : batch) {
    table.prefetchIndex(table.hashOf(entry.flowKey));
  }
  for (const auto& entry : batch) {
    table.prefetchRow(table.hashOf(entry.flowKey), purpose);
  }
}

// Writes all entries with table.is(), one by one or in batches that are asked for ahead.
void writeAll(Table& table, const std::vector<Ostra::OstraConfigEntry>& entries, bool ahead) {
  forEachBlock(entries, [&](std::span<const Ostra::OstraConfigEntry> batch) {
    if (ahead) {
      expect(table, batch, Table::Purpose::writing_);
    }
    for (const auto& entry : batch) {
      table.is(entry);
    }
  });
}

void tableInsert(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  const auto entries = makeEntries(count);
  for (auto _ : state) {
    Table table{anonymous()};
    timeEach(state, count, [&] { writeAll(table, entries, false); });
    require(table.size() == count, "every record is in the table");
  }
}

void tableOverwrite(benchmark::State& state, bool ahead) {
  const auto count = static_cast<std::size_t>(state.range(0));
  auto entries = makeEntries(count);
  Table table{anonymous()};
  for (const auto& entry : entries) {
    table.is(entry);
    table.is(entry);  // both cells of a row are in memory, as in a table that lives
  }
  shuffle(entries, 2);
  std::uint32_t generation = 0;
  for (auto _ : state) {
    ++generation;
    for (auto& entry : entries) {
      entry.entryId = generation;
    }
    timeEach(state, count, [&] { writeAll(table, entries, ahead); });
    const auto* const found = table.find(entries[count / 2].flowKey);
    require(found != nullptr && found->entryId == generation, "every record is overwritten");
  }
}

// Looks all records up with `lookup(key)`, which gives the entry id, after announce(batch) for each batch.
template <class Lookup, class Announce>
void lookUpAll(benchmark::State& state, std::vector<Ostra::OstraConfigEntry> entries, Lookup lookup,
               Announce announce) {
  shuffle(entries, 2);
  for (auto _ : state) {
    std::uint64_t sum = 0;
    timeEach(state, entries.size(), [&] {
      forEachBlock(entries, [&](std::span<const Ostra::OstraConfigEntry> batch) {
        announce(batch);
        for (const auto& entry : batch) {
          sum += lookup(entry.flowKey);
        }
      });
    });
    require(sum == entries.size() * (entries.size() + 1) / 2, "every record is found");
  }
}

void tableFind(benchmark::State& state, bool ahead) {
  const auto entries = makeEntries(static_cast<std::size_t>(state.range(0)));
  Table table{anonymous()};
  writeAll(table, entries, false);
  lookUpAll(
      state, entries, [&](const Ostra::OstraKey& key) { return table.find(key)->entryId; },
      [&](std::span<const Ostra::OstraConfigEntry> batch) {
        if (ahead) {
          expect(table, batch, Table::Purpose::looking_);
        }
      });
}

void tableReaderCopy(benchmark::State& state) {
  const auto entries = makeEntries(static_cast<std::size_t>(state.range(0)));
  Table table{anonymous()};
  writeAll(table, entries, false);
  Vasta::Reader<Ostra::OstraConfigEntry> reader{table};
  Ostra::OstraConfigEntry copy;
  lookUpAll(
      state, entries,
      [&](const Ostra::OstraKey& key) { return reader.find(key, copy) ? copy.entryId : 0; },
      [](std::span<const Ostra::OstraConfigEntry> /*batch*/) {});
}

constinit Brisklog::TraceHandle traceHandle{"Bench"};
constinit Brisklog::TracePoint traceTwo{traceHandle, 5, "Bench::", "trace", " value:%s name:%s"};

void traceRing(benchmark::State& state) {
  std::uint64_t value = 0;
  for (auto _ : state) {
    traceTwo(++value, 7U);
  }
}

// What the text part of a trace point costs when its level is off: the check alone.
void traceTextOff(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(traceHandle.enabled(5));
  }
}

const bool registered = [] {
  registerSizes("BM_TableIs", [](auto& state) { tableOverwrite(state, false); });
  registerSizes("BM_TableIsAhead", [](auto& state) { tableOverwrite(state, true); });
  registerSizes("BM_TableInsert", tableInsert);
  registerSizes("BM_TableFind", [](auto& state) { tableFind(state, false); });
  registerSizes("BM_TableFindAhead", [](auto& state) { tableFind(state, true); });
  registerSizes("BM_TableReaderCopy", tableReaderCopy);
  benchmark::RegisterBenchmark("BM_TraceRing", traceRing);
  benchmark::RegisterBenchmark("BM_TraceTextOff", traceTextOff);
  return true;
}();

}  // namespace
}  // namespace Bench
