#include "VastaTestRecords.h"

namespace VastaTest {
namespace {

void fill(Table<Route>& table, std::uint64_t count, std::uint64_t version = 1) {
  for (std::uint64_t prefix = 0; prefix < count; ++prefix) {
    table.is(Route::of(prefix, version));
  }
}

// Random changes, compared with a map; few keys make for churn, many for growth.
template <class R, class Make>
void behaveLikeAMap(Table<R>& table, std::size_t steps, std::uint64_t keys, Make make) {
  std::map<std::uint64_t, R> model;
  std::mt19937_64 random{keys};
  for (std::size_t step = 0; step < steps; ++step) {
    const std::uint64_t number = random() % keys;
    const R record = make(number, random());
    const auto action = random() % 8;
    if (action < 2) {
      ASSERT_EQ(table.del(record.key(), nullptr), model.erase(number) == 1);
    } else if (action > 2) {
      table.is(record);
      model.insert_or_assign(number, record);
    } else if (R* staging = table.edit(record.key()); staging != nullptr) {
      ASSERT_EQ(std::memcmp(staging, &model.at(number), sizeof(R)), 0);
      *staging = record;
      ASSERT_TRUE(table.commit(staging));
      model.at(number) = record;
    } else {
      ASSERT_FALSE(model.contains(number));
    }
    if (step % (steps / 8) == 0) {
      ASSERT_EQ(violation(table), "none");
    }
  }
  ASSERT_EQ(violation(table), "none");
  ASSERT_EQ(table.size(), model.size());
  for (std::uint64_t number = 0; number < keys; ++number) {
    const R* found = table.find(make(number, 0).key());
    ASSERT_EQ(found != nullptr, model.contains(number)) << number;
    if (found != nullptr) {
      ASSERT_EQ(std::memcmp(found, &model.at(number), sizeof(R)), 0) << number;
    }
  }
  table.delAll();
  EXPECT_EQ(table.size(), 0U);
  EXPECT_EQ(violation(table), "none");
}

TEST(Vasta, BehavesLikeAMapThroughGrowthAndChurn) {
  constexpr std::size_t steps = threadSanitized ? 40'000 : 200'000;
  for (const std::uint64_t keys : {std::uint64_t{5}, std::uint64_t{700}, std::uint64_t{60'000}}) {
    Table<Route> routes{{.name = "routes", .shmName = {}}};
    behaveLikeAMap(routes, steps, keys, &Route::of);
    Table<Label> labels{{.name = "labels", .shmName = {}}};
    behaveLikeAMap(labels, steps / 4, keys, [](std::uint64_t number, std::uint64_t content) {
      Label label;
      std::memcpy(label.name.label.data(), &number, 7);
      std::memcpy(label.before.data(), &content, 3);
      std::memcpy(label.after.data(), &content, 8);
      return label;
    });
  }
  Table<Crowded> crowded{{.name = "crowded", .shmName = {}}};
  behaveLikeAMap(crowded, 4'000, 300, [](std::uint64_t number, std::uint64_t content) {
    return Crowded{{number}, content};
  });
}

TEST(Vasta, AFoundRecordStaysInItsPlaceAndShowsTheChangesOfItsRow) {
  Table<Route> table{{.name = "routes", .shmName = {}}};
  table.is(Route::of(1, 1));
  const Route* first = table.find(1);
  ASSERT_EQ(*first, Route::of(1, 1));
  for (std::uint64_t prefix = 2; prefix < 5'000; ++prefix) {
    table.is(Route::of(prefix, 1));
  }
  EXPECT_EQ(*first, Route::of(1, 1)) << "growth moves no row";
  table.is(Route::of(1, 2));
  EXPECT_EQ(*first, Route::of(1, 2));
  EXPECT_EQ(table.find(1), first);
  table.is(*table.find(1));
  EXPECT_EQ(*table.find(1), Route::of(1, 2)) << "a record may be written back from its own place";
  const Route* removed = table.find(2);
  EXPECT_TRUE(table.del(removed->key(), nullptr)) << "nor is the key copied before it goes";
  EXPECT_EQ(*removed, Route::of(2, 1));
}

TEST(Vasta, AnEditGoesWithItsRecord) {
  Table<Route> table{{.name = "routes", .shmName = {}}};
  table.is(Route::of(1, 1));
  Route* const staging = table.edit(1);
  *staging = Route::of(1, 2);
  EXPECT_EQ(*table.find(1), Route::of(1, 1)) << "not before it is committed";
  EXPECT_TRUE(table.del(1, nullptr));
  table.is(Route::of(7, 1));
  EXPECT_FALSE(table.commit(staging));
  EXPECT_EQ(table.find(1), nullptr);
  EXPECT_EQ(*table.find(7), Route::of(7, 1)) << "nor does it go to the row's next record";
}

TEST(Vasta, AWalkMeetsEveryStayingRecordOnceWhateverElseChanges) {
  Table<Route> table{{.name = "routes", .shmName = {}}};
  constexpr std::uint64_t staying = 1'000;
  fill(table, 2 * staying);
  std::mt19937_64 random{3};
  std::map<std::uint64_t, int> met;
  Hint hint;
  while (const Route* route = table.next(hint)) {
    const std::uint64_t prefix = route->prefix;
    if (prefix < staying) {
      ++met[prefix];
    } else {
      table.del(prefix);  // also the record the walk stands on
    }
    table.del(staying + random() % staying);
    table.is(Route::of(random() % staying, 2));
    if (met.size() % 3 == 0 && table.size() < 5 * staying) {
      table.is(Route::of(100'000 + random() % 100'000, 1));
    }
  }
  EXPECT_EQ(met.size(), staying);
  EXPECT_THAT(met, testing::Each(testing::Pair(testing::_, 1)));
  EXPECT_EQ(table.next(hint), nullptr);
  EXPECT_EQ(violation(table), "none");
}

class VastaNamed : public testing::Test {
 protected:
  [[nodiscard]] Vasta::SegmentNames names() const { return Vasta::SegmentNames{*name_}; }
  // Damages the record of this prefix, by its payload or by its key.
  void damage(const Route& route, bool key = false) {
    Tampering rows{names().rows()};
    rows.flip(key ? static_cast<const void*>(&route) : &route.payload, 16);
  }
  [[nodiscard]] AttachFailure readerFailure() const {
    return failureOf(*name_, [this] { Reader<Route>{*name_}; });
  }
  [[nodiscard]] AttachFailure writerFailure() const {
    return failureOf("routes", [this] { Table<Route>{name_.options()}; });
  }

  TableName name_;
};

TEST_F(VastaNamed, ACorruptRecordIsReportedWalkedPastAndHealed) {
  Table<Route> table{name_.options()};
  Reader<Route> reader{*name_};
  fill(table, 10);
  damage(Route::of(4, 1));
  const std::string message = violation(table);
  EXPECT_THAT(message, AllOf(HasSubstr("'routes': row 4"), HasSubstr("stored checksum 0x"),
                             HasSubstr("computed 0x")));
  EXPECT_THROW(static_cast<void>(table.find(4)), Corruption);
  EXPECT_THROW(static_cast<void>(table.edit(4)), Corruption);
  EXPECT_THROW(table.del(4), Corruption);
  EXPECT_THROW(static_cast<void>(reader.find(4)), Corruption);
  std::size_t met = 0;
  Hint hint;
  EXPECT_THROW(
      while (table.next(hint) != nullptr) { ++met; }, Corruption);
  while (table.next(hint) != nullptr) {
    ++met;
  }
  EXPECT_EQ(met, 9U) << "a walk goes on past the bad row";
  Vasta::FollowCursor cursor;
  std::size_t told = 0;
  const auto take = [&](const auto&, const Route&) { ++told; };
  EXPECT_THROW(reader.follow(cursor, take), Corruption);
  reader.follow(cursor, take);
  EXPECT_EQ(told, 9U);

  std::vector<std::string> reports;
  table.reportCorruption(message);
  table.corruptionHandlerIs([&](const std::string& text) { reports.push_back(text); });
  table.reportCorruption("again");
  EXPECT_EQ(reports, std::vector<std::string>{"again"});
  EXPECT_EQ(table.corruptionCount(), 2U);
  EXPECT_EQ(table.lastCorruption(), "again");

  table.is(Route::of(4, 2));
  EXPECT_EQ(*table.find(4), Route::of(4, 2));
  EXPECT_EQ(*reader.find(4), Route::of(4, 2));
  EXPECT_EQ(violation(table), "none");
}

TEST_F(VastaNamed, ADamagedKeyIsNoticedAndDoesNotHideFromRemoval) {
  Table<Route> table{name_.options()};
  fill(table, 10);
  damage(Route::of(4, 1), true);
  EXPECT_THROW(static_cast<void>(table.find(4)), Corruption);
  EXPECT_TRUE(table.del(4, nullptr)) << "removed without being wanted back";
  damage(Route::of(5, 1), true);
  table.is(Route::of(5, 2));
  EXPECT_EQ(violation(table), "none");
  damage(Route::of(6, 1), true);
  EXPECT_TRUE(table.discard(6));
  EXPECT_FALSE(table.discard(6));
  EXPECT_EQ(table.size(), 8U);
  EXPECT_EQ(violation(table), "none");
  damage(Route::of(7, 1), true);
  table.delAll();
  EXPECT_EQ(table.size(), 0U);
  EXPECT_EQ(violation(table), "none");
}

TEST_F(VastaNamed, MemoryThatRunsOutIsAnErrorAndTheTableGoesOn) {
  Table<Route> table{name_.options()};
  Reader<Route> reader{*name_};
  std::uint64_t count = 0;
  for (const rlim_t bytes : {256U << 10U, 1U << 20U}) {
    const Limit limit{RLIMIT_FSIZE, bytes};
    try {
      for (;; ++count) {
        table.is(Route::of(count, 1));
      }
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), EFBIG);
      EXPECT_NE(std::string{error.what()}.find("'routes'"), std::string::npos) << error.what();
    }
    EXPECT_EQ(violation(table), "none");
    EXPECT_EQ(table.size(), count);
    EXPECT_EQ(table.find(count), nullptr);
    table.is(Route::of(0, 2));
    EXPECT_TRUE(table.del(1).has_value());
    table.is(Route::of(1, 2));
    EXPECT_THROW(table.is(Route::of(count, 1)), std::system_error);
  }
  fill(table, 2 * count);
  EXPECT_EQ(violation(table), "none");
  EXPECT_EQ(*reader.find(2 * count - 1), Route::of(2 * count - 1, 1));
}

TEST_F(VastaNamed, AnIndexThatCannotGrowRefusesInsertionsOnlyOnceItIsFull) {
  Table<Route> table{name_.options()};
  // The sanitizer checks a class at its first call, and wants descriptors for that.
  table.is(Route::of(0, 1));
  const int nextDescriptor = ::dup(STDERR_FILENO);
  ::close(nextDescriptor);
  std::uint64_t count = 0;
  {
    const Limit limit{RLIMIT_NOFILE, static_cast<rlim_t>(nextDescriptor)};
    EXPECT_THROW(
        for (; count < 10'000; ++count) { table.is(Route::of(count, 1)); }, std::system_error);
    EXPECT_GT(count, 256U) << "half full is no reason to refuse";
    EXPECT_EQ(violation(table), "none");
    EXPECT_EQ(table.find(count), nullptr);
    table.is(Route::of(0, 2));
  }
  fill(table, 10'000, 3);
  EXPECT_EQ(table.size(), 10'000U);
  EXPECT_EQ(violation(table), "none");
}

TEST_F(VastaNamed, WhatIsNoTableOfTheseRecordsIsRefused) {
  EXPECT_EQ(readerFailure(), AttachFailure::missing);
  { Table<Label> other{name_.options()}; }
  EXPECT_EQ(readerFailure(), AttachFailure::layout);
  EXPECT_EQ(writerFailure(), AttachFailure::layout);
  EXPECT_TRUE(Vasta::removeTable(*name_));
  EXPECT_EQ(readerFailure(), AttachFailure::missing);
  { Table<Route> table{name_.options()}; }
  Tampering header{names().header()};
  for (const auto& [byte, failure] :
       {std::pair{Vasta::Header::formatVersion_ * 8, AttachFailure::version},
        {Vasta::Header::magic_ * 8, AttachFailure::foreign},
        {Vasta::Header::rowCount_ * 8 + 4, AttachFailure::damaged},
        {Vasta::Header::recordSize_ * 8 + 1, AttachFailure::layout}}) {
    header.flipByte(byte);
    EXPECT_EQ(readerFailure(), failure) << byte;
    if (byte < Vasta::Header::recordSize_ * 8) {
      EXPECT_EQ(writerFailure(), failure) << byte;
    }
    header.flipByte(byte);
  }
  Korm::unlinkSegment(names().rows());
  EXPECT_EQ(readerFailure(), AttachFailure::missing);
  EXPECT_EQ(writerFailure(), AttachFailure::truncated);
}

TEST_F(VastaNamed, ATableKeepsOtherWritersOutUntilItGoesAndStaysReadableToWhoeverHasIt) {
  auto table = std::make_unique<Table<Route>>(name_.options(true));
  fill(*table, 100);
  Reader<Route> reader{*name_};
  EXPECT_EQ(writerFailure(), AttachFailure::writerBusy);
  EXPECT_FALSE(Vasta::removeTable(*name_));
  EXPECT_FALSE(reader.isRemoved());
  table.reset();
  EXPECT_TRUE(reader.isRemoved());
  EXPECT_EQ(*reader.find(99), Route::of(99, 1));
  EXPECT_EQ(readerFailure(), AttachFailure::missing);
  for (const auto& segment : {names().header(), names().rows(), names().index(1)}) {
    EXPECT_LT(::shm_open(segment.text(), O_RDONLY, 0), 0) << segment.text();
  }
  const Table<Route> fresh{name_.options(true)};
  EXPECT_EQ(fresh.writerGeneration(), 1U);
  EXPECT_EQ(fresh.size(), 0U);
  EXPECT_EQ(reader.size(), 100U) << "the old table, not the new one of its name";
}

// What a follower knows: the record in each row.
class Mirror {
 public:
  Vasta::FollowResult follow(Reader<Route>& reader) {
    return reader.follow(cursor_, [this](const Vasta::RowChange& change, const Route& route) {
      if (patience_ != 0 && --patience_ == 0) {
        throw std::runtime_error{"not now"};
      }
      rows_.erase(change.row);
      if (change.live) {
        rows_[change.row] = route;
      }
    });
  }
  // It throws at that change, once; at 0 at none.
  void patienceIs(std::uint64_t changes) { patience_ = changes; }
  [[nodiscard]] bool equals(Reader<Route>& reader) const {
    return rows_.size() == reader.size() &&
           std::all_of(rows_.begin(), rows_.end(), [&reader](const auto& row) {
             return reader.find(row.second.prefix) == row.second;
           });
  }

 private:
  Vasta::FollowCursor cursor_;
  std::map<std::uint32_t, Route> rows_;
  std::uint64_t patience_ = 0;
};

TEST_F(VastaNamed, AFollowerKnowsWhatTheTableHolds) {
  auto table = std::make_unique<Table<Route>>(name_.options());
  Reader<Route> reader{*name_};
  Mirror mirror;
  std::mt19937_64 random{11};
  for (int round = 0; round < 300; ++round) {
    const bool successor = random() % 20 == 0;
    if (successor) {
      table.reset();
      table = std::make_unique<Table<Route>>(name_.options());
    }
    const std::uint64_t steps = random() % 100;
    for (std::uint64_t step = 0; step < steps; ++step) {
      if (random() % 3 == 0) {
        table->del(random() % 200, nullptr);
      } else {
        table->is(Route::of(random() % 200, random() % 1000));
      }
    }
    mirror.patienceIs(round == 0 ? 0 : random() % 10);
    try {
      const Vasta::FollowResult result = mirror.follow(reader);
      ASSERT_LE(result.told, steps) << "rows that have not changed are not told";
      ASSERT_EQ(result.writerChanged, successor);
    } catch (const std::runtime_error&) {
    }
    mirror.patienceIs(0);
    mirror.follow(reader);
    ASSERT_TRUE(mirror.equals(reader)) << round;
    ASSERT_EQ(mirror.follow(reader).told, 0U);
  }
}

// Segments of a table that replaces its index while a reader attaches to it.
class OvertakingSegments final : public Vasta::SegmentSource {
 public:
  OvertakingSegments(std::shared_ptr<SegmentSource> source, std::function<void()> replaceIndex)
      : source_{std::move(source)}, replaceIndex_{std::move(replaceIndex)} {}
  [[nodiscard]] const std::string& name() const noexcept override { return source_->name(); }
  [[nodiscard]] std::shared_ptr<Korm::Segment> header() override { return source_->header(); }
  [[nodiscard]] std::shared_ptr<Korm::Segment> rows() override { return source_->rows(); }
  [[nodiscard]] std::shared_ptr<Korm::Segment> index(std::uint64_t& generation) override {
    auto segment = source_->index(generation);
    replaceIndex_();
    return segment;
  }

 private:
  const std::shared_ptr<SegmentSource> source_;
  const std::function<void()> replaceIndex_;
};

TEST(Vasta, ALookUpInAnIndexThatIsReplacedMeanwhileMissesNothing) {
  Table<Route> table{{.name = "routes", .shmName = {}}};
  bool replaces = false;
  constexpr std::uint64_t newest = 1'000'000;
  Vasta::TableReader reader{
      std::make_shared<OvertakingSegments>(table.segments(),
                                           [&] {
                                             if (std::exchange(replaces, false)) {
                                               fill(table, 4'000);
                                               table.is(Route::of(newest, 1));
                                             }
                                           }),
      Vasta::recordLayout<Route>()};
  fill(table, 1'000);  // replaces the index that the reader has
  replaces = true;
  Route found;
  EXPECT_TRUE(
      reader.find(&newest, Vasta::hashOfKey<Route>(newest), reinterpret_cast<std::byte*>(&found)));
  EXPECT_EQ(found, Route::of(newest, 1));
  EXPECT_FALSE(replaces);
}

// Readers on the writer's own mapping, so that the thread sanitizer sees both sides of every word.
TEST(VastaThreads, ReadersSeeWholeRecordsAndMissNoneWhileTheTableGrows) {
  Table<Route> table{{.name = "routes", .shmName = {}}};
  constexpr std::uint64_t staying = 64;
  constexpr std::uint64_t keys = threadSanitized ? 6'000 : 30'000;
  fill(table, staying);
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> faults{0};
  std::atomic<std::uint64_t> looks{0};
  const auto read = [&](std::uint64_t seed) {
    Reader<Route> reader{table};
    Mirror mirror;
    std::mt19937_64 random{seed};
    std::array<std::uint64_t, staying> seen{};
    while (!stop) {
      for (std::uint64_t prefix = 0; prefix < staying; ++prefix) {
        const auto route = reader.find(prefix);
        const bool good = route && route->isWhole() && route->version >= seen[prefix];
        faults += good ? 0 : 1;
        seen[prefix] = route ? route->version : 0;
      }
      const auto other = reader.find(staying + random() % keys);
      faults += other && !other->isWhole() ? 1 : 0;
      mirror.follow(reader);
      ++looks;
    }
    mirror.follow(reader);
    faults += mirror.equals(reader) ? 0 : 1;
  };
  std::thread first{read, 1};
  std::thread second{read, 2};
  std::mt19937_64 random{5};
  for (std::uint64_t step = 0; step < keys || looks < 20; ++step) {
    table.is(Route::of(staying + step % keys, step));
    table.is(Route::of(random() % staying, 2 + step));
    if (step % 3 == 0) {
      table.del(staying + random() % keys, nullptr);
    }
    if (step == keys / 2) {
      for (std::uint64_t prefix = 0; prefix < keys / 3; ++prefix) {
        table.del(staying + prefix, nullptr);
      }
    }
  }
  stop = true;
  first.join();
  second.join();
  EXPECT_EQ(faults, 0U);
  EXPECT_EQ(violation(table), "none");
}

}  // namespace
}  // namespace VastaTest
