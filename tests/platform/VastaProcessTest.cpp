// Writers and readers in processes of their own, with writers killed at any instant.
#include "ChildProcess.h"
#include "VastaTestRecords.h"

namespace VastaTest {
namespace {

void require(bool condition, const std::string& what) {
  if (!condition) {
    throw std::runtime_error{what};
  }
}

// What the processes know of each other. A key's version counts its changes; it is absent at
// version 0 and at every fourth one after.
constexpr std::uint64_t keys = 6'000;
struct Journal {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> commits{0};
  std::atomic<std::uint64_t> looks{0};
  std::atomic<std::uint64_t> opened{0};
  std::array<std::atomic<std::uint64_t>, keys> started{};
  std::array<std::atomic<std::uint64_t>, keys> done{};

  static bool isAbsentAt(std::uint64_t version) { return version % 4 == 0; }
};

std::shared_ptr<Journal> makeJournal() {
  void* const memory =
      ::mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return {new (memory) Journal, [](Journal* journal) { ::munmap(journal, sizeof(Journal)); }};
}

// Every committed change must be there, and nothing but the one under way may be besides.
void reconcile(const Table<Route>& table, Journal& journal) {
  int underWay = 0;
  std::uint64_t present = 0;
  for (std::uint64_t prefix = 0; prefix < keys; ++prefix) {
    const std::uint64_t started = journal.started[prefix];
    std::uint64_t done = journal.done[prefix];
    const Route* route = table.find(prefix);
    const auto matches = [&](std::uint64_t version) {
      return Journal::isAbsentAt(version) ? route == nullptr
                                          : route != nullptr && route->version == version;
    };
    underWay += started != done ? 1 : 0;
    if (started != done && !matches(done)) {
      done = started;
    }
    require(matches(done), "key " + std::to_string(prefix) + " is not at version " +
                               std::to_string(done) + " but " +
                               (route != nullptr ? std::to_string(route->version) : "absent"));
    require(route == nullptr || route->isWhole(), "a torn record");
    journal.started[prefix] = done;
    journal.done[prefix] = done;
    present += route != nullptr ? 1 : 0;
  }
  require(underWay <= 1, "more than one change under way");
  require(present == table.size(), "the size is wrong");
}

void changeOne(Table<Route>& table, Journal& journal, std::uint64_t prefix) {
  const std::uint64_t version = journal.done[prefix] + 1;
  journal.started[prefix] = version;
  if (Journal::isAbsentAt(version)) {
    require(table.del(prefix, nullptr), "a record to be removed is missing");
  } else if (version % 4 == 2) {
    Route* staging = table.edit(prefix);
    require(staging != nullptr, "a record to be edited is missing");
    *staging = Route::of(prefix, version);
    require(table.commit(staging), "an edit was not committed");
  } else {
    table.is(Route::of(prefix, version));
  }
  journal.done[prefix] = version;
  ++journal.commits;
}

// Opens the table, whoever had it before, and changes it until it is killed or told to stop. The
// keys in use become more and more, so that rows and index grow.
void write(const TableName& name, Journal& journal, std::uint64_t seed) {
  Table<Route> table{{.name = "routes", .shmName = *name}};
  require(table.corruptionCount() == 0, table.lastCorruption());
  const auto violation = table.verify();
  require(!violation, violation.value_or(""));
  reconcile(table, journal);
  ++journal.opened;
  std::mt19937_64 random{seed};
  while (!journal.stop) {
    const std::uint64_t inUse = std::min(keys, 64 + journal.commits / 2);
    changeOne(table, journal, random() % inUse);
  }
  require(!table.verify(), "the table is broken at the end");
}

// Retries while there is no table yet.
std::optional<Reader<Route>> attach(const TableName& name, const Journal& journal) {
  while (!journal.stop) {
    try {
      return std::optional<Reader<Route>>{std::in_place, *name};
    } catch (const AttachError& error) {
      require(error.failure() == Vasta::AttachFailure::missing ||
                  error.failure() == Vasta::AttachFailure::notReady,
              error.what());
    }
  }
  return std::nullopt;
}

// Looks keys up: what was committed before a look must show in it, and versions never go back.
void lookUp(const TableName& name, Journal& journal, std::uint64_t seed) {
  auto reader = attach(name, journal);
  std::mt19937_64 random{seed};
  std::array<std::uint64_t, keys> seen{};
  while (reader && !journal.stop) {
    const std::uint64_t prefix = random() % std::min(keys, 64 + journal.commits.load() / 2);
    const std::uint64_t least = std::max<std::uint64_t>(journal.done[prefix], seen[prefix]);
    const auto route = reader->find(prefix);
    const std::uint64_t most = journal.started[prefix];
    if (route) {
      require(route->isWhole() && route->prefix == prefix, "a reader saw a torn record");
      require(least <= route->version && route->version <= most,
              "key " + std::to_string(prefix) + " read at version " +
                  std::to_string(route->version) + ", committed " + std::to_string(least) +
                  ", begun " + std::to_string(most));
      seen[prefix] = route->version;
    } else {
      bool mayBeAbsent = false;
      for (std::uint64_t version = least; version <= most; ++version) {
        mayBeAbsent = mayBeAbsent || Journal::isAbsentAt(version);
      }
      require(mayBeAbsent, "key " + std::to_string(prefix) + " was missed");
    }
    ++journal.looks;
  }
}

TEST(VastaProcesses, AWriterKilledAtAnyInstantLosesNothingCommitted) {
  constexpr int rounds = threadSanitized ? 3 : 6;
  constexpr int killsPerRound = threadSanitized ? 10 : 20;
  std::mt19937_64 random{1234};
  for (int round = 0; round < rounds; ++round) {
    const TableName name;
    const auto journal = makeJournal();
    std::vector<ChildProcess> readers;
    for (const std::uint64_t seed : {1U, 2U}) {
      readers.emplace_back([&, seed] { lookUp(name, *journal, seed); });
    }
    for (int kill = 0; kill < killsPerRound; ++kill) {
      const std::uint64_t opened = journal->opened;
      ChildProcess writer{[&] { write(name, *journal, random()); }};
      // Some die while they open the table, most while they change it.
      if (kill % 4 != 3) {
        waitFor([&] { return journal->opened != opened; });
      }
      std::this_thread::sleep_for(std::chrono::microseconds{random() % 12'000});
      ASSERT_TRUE(writer.kill());
    }
    const std::uint64_t opened = journal->opened;
    ChildProcess writer{[&] { write(name, *journal, 7); }};
    waitFor([&] { return journal->opened != opened && journal->looks > 100; });
    journal->stop = true;
    EXPECT_TRUE(writer.join());
    for (ChildProcess& reader : readers) {
      EXPECT_TRUE(reader.join());
    }
    EXPECT_GT(journal->looks, 100U);
    Table<Route> table{name.options()};
    EXPECT_EQ(violation(table), "none");
    EXPECT_NO_THROW(reconcile(table, *journal));
  }
}

TEST(VastaProcesses, AWriterKilledWhileItCreatesOrRemovesLeavesNothingInTheWay) {
  const TableName name;
  std::mt19937_64 random{99};
  for (int kill = 0; kill < (threadSanitized ? 15 : 60); ++kill) {
    ChildProcess writer{[&] {
      for (;;) {
        Table<Route> table{name.options(true)};
        require(table.size() == 0 && !table.find(1), "not the table that was created");
        table.is(Route::of(1, 1));
      }
    }};
    std::this_thread::sleep_for(std::chrono::microseconds{random() % 3'000});
    ASSERT_TRUE(writer.kill());
    Table<Route> table{name.options(true)};
    ASSERT_EQ(violation(table), "none");
    table.is(Route::of(1, 1));
    ASSERT_EQ(Reader<Route>{*name}.find(1), Route::of(1, 1));
  }
}

}  // namespace
}  // namespace VastaTest
