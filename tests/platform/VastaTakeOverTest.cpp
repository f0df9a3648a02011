// What a successor accepts of what was left to it, and what readers make of another writer.

#include "ChildProcess.h"
#include "VastaTestRecords.h"
#include "platform/Vasta/Layout.h"

namespace VastaTest {
namespace {

namespace Header = Vasta::Header;

// Records that lie in memory as routes do, under another name or with another hash of their key.
struct Renamed : Route {
  static constexpr std::string_view vastaName = "Renamed";
};
struct Rehashed {
  struct Key {
    std::uint64_t prefix = 0;
    [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const {
      return static_cast<std::uint32_t>(prefix) + seed + 1;
    }
  };
  static constexpr std::string_view vastaName = Route::vastaName;
  Key prefix;
  std::uint64_t version = 0;
  std::array<std::uint64_t, 24> payload{};
  [[nodiscard]] const Key& key() const { return prefix; }
};

std::filesystem::path fileOf(const Korm::SegmentName& segment) {
  return std::string{"/dev/shm"} + segment.text();
}

class VastaTakeOver : public testing::Test {
 protected:
  [[nodiscard]] static Vasta::SegmentNames names(const TableName& of) {
    return Vasta::SegmentNames{*of};
  }
  // Opens and closes the table of this name with prefixes 0 to count - 1.
  static void leave(const TableName& name, std::uint64_t count) {
    Table<Route> table{name.options()};
    for (std::uint64_t prefix = 0; prefix < count; ++prefix) {
      table.is(Route::of(prefix, 1));
    }
  }
  [[nodiscard]] std::size_t segments() const {
    std::size_t count = 0;
    const std::string prefix = names(name_).header().text() + 1;
    for (const auto& file : std::filesystem::directory_iterator{"/dev/shm"}) {
      const std::string found = file.path().filename();
      count += found == prefix || found.starts_with(prefix + '#') ? 1U : 0U;
    }
    return count;
  }
  template <class Record = Route>
  void refused(AttachFailure failure) const {
    const std::size_t before = segments();
    EXPECT_EQ(failureOf("routes", [this] { Table<Record>{name_.options()}; }), failure);
    EXPECT_EQ(segments(), before) << "what is refused stays as it is";
  }
  // The prefixes that a follower is told of.
  std::vector<std::uint64_t> follow(Vasta::FollowCursor& cursor) {
    Reader<Route> reader{*name_};
    std::vector<std::uint64_t> told;
    reader.follow(cursor, [&told](const Vasta::RowChange&, const Route& route) {
      told.push_back(route.prefix);
    });
    return told;
  }

  TableName name_;
};

TEST_F(VastaTakeOver, RefusesRowsThatAreCutOffOrAnotherTables) {
  leave(name_, 2'000);
  const auto rows = fileOf(names(name_).rows());
  const auto whole = std::filesystem::file_size(rows);
  std::filesystem::copy_file(rows, rows.string() + ".kept");
  std::filesystem::resize_file(rows, whole / 4);
  refused(AttachFailure::truncated);
  EXPECT_THROW(Reader<Route>{*name_}, AttachError);

  const TableName other;
  leave(other, 2'000);
  std::filesystem::rename(fileOf(names(other).rows()), rows);
  refused(AttachFailure::truncated);
  std::filesystem::remove(rows.string() + ".kept");
}

TEST_F(VastaTakeOver, RefusesAHeaderWithoutItsMarkUnlessItIsThisFormats) {
  leave(name_, 3);
  {
    Tampering header{names(name_).header()};
    header.wordIs(Header::magic_, 0);
    header.wordIs(Header::formatVersion_, header.word(Header::formatVersion_) + 1);
  }
  refused(AttachFailure::notReady);
  {
    Tampering header{names(name_).header()};
    header.wordIs(Header::formatVersion_, header.word(Header::formatVersion_) - 1);
  }
  EXPECT_EQ(Table<Route>{name_.options()}.size(), 0U) << "a writer that died while it created it";
}

TEST_F(VastaTakeOver, RefusesRecordsThatOnlyLookAlike) {
  leave(name_, 3);
  refused<Renamed>(AttachFailure::layout);
  refused<Rehashed>(AttachFailure::layout);
  EXPECT_THROW(Reader<Renamed>{*name_}, AttachError);
}

TEST_F(VastaTakeOver, AnIndexThatWasReplacedKeepsItsSizeWhileAReaderElsewhereHasIt) {
  Table<Route> table{name_.options()};
  std::uint64_t prefix = 0;
  const auto insertUntil = [&](const auto& enough) {
    for (const std::uint64_t most = prefix + 100'000; prefix < most && !enough(); ++prefix) {
      table.is(Route::of(prefix, 1));
    }
    EXPECT_TRUE(enough());
  };
  // Large enough to be given back in more than one step.
  std::uint64_t generation = 1;
  insertUntil([&] {
    generation += std::filesystem::exists(fileOf(names(name_).index(generation + 1))) ? 1U : 0U;
    return generation == 7 && !std::filesystem::exists(fileOf(names(name_).index(6)));
  });
  const auto file = fileOf(names(name_).index(generation));
  const int descriptor = ::open(file.c_str(), O_RDONLY);
  const auto size = [descriptor] { return ::lseek(descriptor, 0, SEEK_END); };
  const auto whole = size();
  std::array<int, 2> attached{};
  ASSERT_EQ(::pipe(attached.data()), 0);
  {
    ChildProcess child{[&] {
      const Reader<Route> reader{*name_};
      static_cast<void>(::write(attached[1], "", 1));
      ::pause();
    }};
    char byte = 0;
    ASSERT_EQ(::read(attached[0], &byte, 1), 1);
    insertUntil([&] { return !std::filesystem::exists(file); });
    for (const std::uint64_t most = prefix + 1'000; prefix < most; ++prefix) {
      table.is(Route::of(prefix, 1));
    }
    EXPECT_EQ(size(), whole);
  }
  insertUntil([&] { return size() < whole; });
  for (const int one : {descriptor, attached[0], attached[1]}) {
    ::close(one);
  }
}

TEST_F(VastaTakeOver, LeavesNoIndexBehindHoweverOften) {
  for (int times = 0; times < 5; ++times) {
    const Table<Route> table{name_.options()};
    EXPECT_EQ(segments(), 3U) << "header, rows and one index";
  }
}

// Puts a row in the state in which a writer leaves it that dies while it copies the spare cell.
void leaveInSpareCell(const Vasta::SegmentNames& names, std::uint32_t row) {
  const Vasta::RowGeometry geometry{sizeof(Route), 0, sizeof(Route::Key)};
  Tampering rows{names.rows()};
  const std::size_t at = geometry.rowOffset(row);
  for (std::size_t word = 0; word < geometry.cellWords; ++word) {
    rows.wordIs(word, rows.word(at + 1 + word));
    if (word % 2 == 0) {
      rows.wordIs(at + 1 + word, 0);
    }
  }
  const std::uint64_t sequence = Vasta::Version::sequence(rows.word(at));
  rows.wordIs(at, Vasta::checkedWord(Vasta::Version::of(sequence, true)));
}

TEST_F(VastaTakeOver, AChangeWhoseWriterDiedWhileItCopiedItIsSeenByAllAndCompletedByTheNext) {
  const auto present = [](auto& table) {
    std::vector<bool> found;
    for (std::uint64_t prefix = 0; prefix < 4; ++prefix) {
      const auto route = table.find(prefix);
      found.push_back(route && *route == Route::of(prefix, 1));
    }
    return found;
  };
  for (const std::uint32_t underWay : {1U, 3U}) {
    const TableName name;
    leave(name, 4);
    Table<Route>{name.options()}.del(3, nullptr);
    leaveInSpareCell(names(name), underWay);
    const std::vector<bool> expected{true, true, true, false};
    Reader<Route> reader{*name};
    EXPECT_EQ(present(reader), expected);
    Table<Route> table{name.options()};
    EXPECT_EQ(violation(table), "none");
    EXPECT_EQ(present(table), expected);
    table.is(Route::of(0, 1));  // uses the spare cell again
    EXPECT_EQ(present(table), expected);
    EXPECT_EQ(present(reader), expected);
    table.is(Route::of(9, 1));
    EXPECT_EQ(violation(table), "none");
  }
}

// The record is lost then, but nothing else.
TEST_F(VastaTakeOver, ADamagedSpareCellIsACorruptRow) {
  leave(name_, 3);
  leaveInSpareCell(names(name_), 1);
  Tampering{names(name_).rows()}.flipByte(40);
  EXPECT_THROW(static_cast<void>(Reader<Route>{*name_}.find(1)), Corruption);
  Table<Route> table{name_.options()};
  EXPECT_EQ(table.corruptionCount(), 1U);
  table.is(Route::of(0, 2));
  EXPECT_THAT(violation(table), HasSubstr("row 1"));
  EXPECT_TRUE(table.discard(1));
  EXPECT_EQ(violation(table), "none");
}

TEST_F(VastaTakeOver, AFollowerOfANewWriterLearnsOfNothingTwice) {
  leave(name_, 3);
  Vasta::FollowCursor cursor;
  EXPECT_THAT(follow(cursor), ElementsAre(0, 1, 2));

  // The newest row is damaged, so that the header alone knows how far the sequence went.
  const Route newest = Route::of(2, 1);
  Tampering{names(name_).rows()}.flip(&newest.payload, 16);
  const std::uint64_t before = Reader<Route>{*name_}.changeSequence();
  Table<Route> table{name_.options()};
  EXPECT_EQ(Reader<Route>{*name_}.changeSequence(), before);
  table.is(Route::of(0, 2));
  EXPECT_THAT(follow(cursor), ElementsAre(0));
}

TEST_F(VastaTakeOver, ASequenceThatLeavesNoRoomForChangesIsDamage) {
  leave(name_, 3);
  Tampering{names(name_).header()}.wordIs(Header::changeSequence_,
                                          Vasta::checkedWord(Vasta::checkedNumberMask - 1));
  Table<Route> table{name_.options()};
  table.is(Route::of(1, 2));
  EXPECT_EQ(Reader<Route>{*name_}.find(1), Route::of(1, 2));
  EXPECT_EQ(violation(table), "none");
}

TEST_F(VastaTakeOver, AFollowerBeginsAgainWithATableThatBeganAgain) {
  leave(name_, 20);
  Vasta::FollowCursor cursor;
  EXPECT_EQ(follow(cursor).size(), 20U);
  ASSERT_TRUE(Vasta::removeTable(*name_));
  leave(name_, 2);
  EXPECT_THAT(follow(cursor), ElementsAre(0, 1));
}

TEST_F(VastaTakeOver, AReaderWithTooLittleAddressSpaceIsToldSo) {
  if (threadSanitized) {
    GTEST_SKIP() << "the sanitizer needs address space of its own";
  }
  leave(name_, 100);
  const auto work = [this] {
    std::size_t pages = 0;
    std::ifstream{"/proc/self/statm"} >> pages;
    auto limit = std::make_unique<Limit>(RLIMIT_AS, pages * 4096 + (std::size_t{8} << 20U));
    Reader<Route> reader{*name_};
    limit.reset();
    leave(name_, 100'000);
    const auto find = [&reader] { static_cast<void>(reader.find(99'999)); };
    std::_Exit(messageOf<std::system_error>(find).empty() ? 1 : 0);
  };
  EXPECT_EXIT(work(), testing::ExitedWithCode(0), "");
}

// An entry that is removed before others of its search chain stays as a removed one.
TEST_F(VastaTakeOver, AnIndexFullOfRemovedEntriesIsCopiedAndNotEnlarged) {
  Table<Crowded> table{name_.options()};
  const auto size = std::filesystem::file_size(fileOf(names(name_).index(1)));
  const auto keyOf = [](std::uint64_t chain, std::uint64_t number) {
    return Crowded::Key{3 * number + chain};
  };
  for (std::uint64_t number = 0; number < 250; ++number) {
    table.is({.name = keyOf(0, number)});
  }
  for (std::uint64_t number = 0; number < 240; ++number) {
    ASSERT_TRUE(table.del(keyOf(0, number), nullptr));
  }
  // More than half of the index is in use now, and begins to be replaced.
  for (std::uint64_t number = 0; number < 20; ++number) {
    table.is({.name = keyOf(1, number)});
  }
  const auto next = fileOf(names(name_).index(2));
  for (int steps = 0; std::filesystem::exists(fileOf(names(name_).index(1))); ++steps) {
    ASSERT_LT(steps, 1'000) << "it is not replaced";
    table.is({.name = keyOf(1, 0)});
    table.is({.name = keyOf(2, 0)});
    table.del(keyOf(2, 0), nullptr);
  }
  EXPECT_EQ(std::filesystem::file_size(next), size);
  EXPECT_EQ(violation(table), "none");
}

// At a fifth of its capacity an index never has to be cleaned, since removed entries that nothing
// follows become empty at once, with those before them.
TEST_F(VastaTakeOver, RemovedEntriesBecomeEmptyTogether) {
  Table<Route> table{name_.options()};
  for (std::uint64_t prefix = 0; prefix < 30'000; ++prefix) {
    table.is(Route::of(prefix, 1));
    if (prefix >= 100) {
      ASSERT_TRUE(table.del(prefix - 100, nullptr));
    }
  }
  EXPECT_TRUE(std::filesystem::exists(fileOf(names(name_).index(1))));
}

}  // namespace
}  // namespace VastaTest
