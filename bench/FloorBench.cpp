// The least that a flow write could cost: the same flows in two standard hash maps.

#include <array>
#include <cstring>
#include <string>
#include <unordered_map>

#include "Ostra/FlowUtil.h"
#include "bench/Entries.h"
#include "bench/Measure.h"
#include "platform/Korm/Hash.h"

namespace Bench {
namespace {

struct Record {
  std::array<std::byte, 320> bytes{};
};

struct Key {
  std::array<std::byte, 256> bytes{};
  friend bool operator==(const Key& a, const Key& b) noexcept {
    return std::memcmp(&a, &b, sizeof(Key)) == 0;
  }
};
struct KeyHash {
  std::size_t operator()(const Key& key) const noexcept {
    return Korm::hashBytes(&key, sizeof(key), 0);
  }
};

struct Flow {
  std::string name;
  Key key;
};

struct Floor {
  explicit Floor(std::size_t count) {
    flows.reserve(count);
    for (std::uint32_t n = 0; n < count; ++n) {
      const Ostra::OstraConfigEntry entry = makeEntry(n);
      Flow flow{Ostra::buildFlowName(entry.entryHandle), {}};
      // The match, which ends the key. What precedes it does not tell these flows apart.
      const auto* const end = reinterpret_cast<const std::byte*>(&entry.flowKey + 1);
      std::memcpy(flow.key.bytes.data(), end - sizeof(flow.key), sizeof(flow.key));
      flows.push_back(flow);
    }
    shuffle(flows);
  }
  void write(const Flow& flow, const Record& record) {
    records.insert_or_assign(flow.name, record);
    handles.insert_or_assign(flow.key, flows.size());
  }
  void writeAll(const Record& record) {
    for (const Flow& flow : flows) {
      write(flow, record);
    }
  }

  std::vector<Flow> flows;
  std::unordered_map<std::string, Record> records;
  std::unordered_map<Key, std::uint64_t, KeyHash> handles;
};

void floorInsert(benchmark::State& state) {
  const auto count = argument(state);
  for (auto _ : state) {
    Floor floor{count};
    timeEach(state, count, [&] { floor.writeAll({}); });
    require(floor.records.size() == count && floor.handles.size() == count, "floor insert");
  }
}

void floorOverwrite(benchmark::State& state) {
  const auto count = argument(state);
  Record changed;
  changed.bytes[7] = std::byte{1};
  for (auto _ : state) {
    Floor floor{count};
    floor.writeAll({});
    shuffle(floor.flows, 2);
    timeEach(state, count, [&] { floor.writeAll(changed); });
    require(floor.records.at(floor.flows[count / 2].name).bytes[7] == std::byte{1},
            "floor overwrite");
  }
}

void floorDelete(benchmark::State& state) {
  const auto count = argument(state);
  for (auto _ : state) {
    Floor floor{count};
    floor.writeAll({});
    shuffle(floor.flows, 2);
    timeEach(state, count, [&] {
      for (const Flow& flow : floor.flows) {
        floor.records.erase(flow.name);
        floor.handles.erase(flow.key);
      }
    });
    require(floor.records.empty() && floor.handles.empty(), "floor delete");
  }
}

// The slowest insert while the maps grow from empty: some make a map hash all of its keys again.
void floorWorstInsert(benchmark::State& state) {
  const auto count = argument(state);
  for (auto _ : state) {
    slowestOf(state, count, [&](auto&& timed) {
      Floor floor{count};
      for (const Flow& flow : floor.flows) {
        timed([&] { floor.write(flow, {}); });
      }
      require(floor.records.size() == count, "floor insert");
    });
  }
}

// The time of one cache miss. Each record says where the next one is, so that no read can begin
// before the one before it has ended. Finding one flow among N takes at least one miss.
void floorMiss(benchmark::State& state) {
  struct Link {
    std::uint32_t next = 0;
    std::array<std::byte, 476> rest{};
  };
  const auto count = argument(state);
  const auto order = shuffled(count);
  std::vector<Link> links(count);
  for (std::size_t at = 0; at < count; ++at) {
    links[order[at]].next = order[(at + 1) % count];
  }
  for (auto _ : state) {
    std::uint32_t at = order[0];
    timeEach(state, count, [&] {
      for (std::size_t step = 0; step < count; ++step) {
        at = links[at].next;
      }
    });
    require(at == order[0], "the chain is followed to its end");
  }
}

const bool registered = [] {
  registerSizes("BM_FloorMiss", floorMiss);
  registerSizes("BM_FloorInsert", floorInsert);
  registerSizes("BM_FloorOverwrite", floorOverwrite);
  registerSizes("BM_FloorDelete", floorDelete);
  registerWorst("BM_FloorWorstInsert", floorWorstInsert);
  return true;
}();

}  // namespace
}  // namespace Bench
