// Records of which only the front counts.

#include "VastaTestRecords.h"

namespace {

using VastaTest::TableName;
using VastaTest::Tampering;

struct List {
  using Key = std::uint64_t;
  static constexpr std::string_view vastaName = "List";

  Key id = 0;
  std::uint32_t count = 0;
  std::array<std::uint32_t, 301> items{};

  static List of(Key id, std::uint32_t count) {
    List list{.id = id, .count = count};
    for (std::uint32_t at = 0; at < count; ++at) {
      list.items[at] = static_cast<std::uint32_t>(Korm::hashMix(id * 1000 + at)) | 1U;
    }
    return list;
  }
  [[nodiscard]] const Key& key() const { return id; }
  [[nodiscard]] std::size_t usedSize() const {
    return offsetof(List, items) + std::size_t{count} * sizeof(std::uint32_t);
  }
  bool operator==(const List&) const = default;
};

class VastaUsedSize : public testing::Test {
 protected:
  TableName name_;
  Vasta::Table<List> table_{name_.options()};
  Vasta::Reader<List> reader_{*name_};
};

TEST_F(VastaUsedSize, CopiesOfAListThatGrowsAndShrinksHaveZerosBehindIt) {
  std::mt19937 random{7};
  for (int change = 0; change < 2'000; ++change) {
    const std::uint64_t id = random() % 3;
    const List list = List::of(id, static_cast<std::uint32_t>(random() % 302));
    table_.is(list);
    const List* const inPlace = table_.find(id);
    ASSERT_NE(inPlace, nullptr);
    ASSERT_TRUE(
        std::equal(list.items.begin(), list.items.begin() + list.count, inPlace->items.begin()));
    ASSERT_EQ(reader_.find(id), list) << "change " << change;
    List* const staged = table_.edit(id);
    ASSERT_EQ(*staged, list);
    if (change % 5 == 0) {
      ASSERT_EQ(table_.del(id), list);
      ASSERT_EQ(reader_.find(id), std::nullopt);
    }
  }
  EXPECT_EQ(table_.verify(), std::nullopt);
}

TEST_F(VastaUsedSize, DamageIsNoticedWithinTheListAndOfNoConsequenceBehindIt) {
  table_.is(List::of(1, 300));  // stays in the row behind the shorter one
  const List shorter = List::of(1, 40);
  table_.is(shorter);
  Tampering rows{Vasta::SegmentNames{*name_}.rows()};
  const List full = List::of(1, 300);
  rows.flip(&full.items[200], 16);
  EXPECT_EQ(reader_.find(1), shorter);
  EXPECT_EQ(table_.find(1)->count, 40U);
  rows.flip(&full.items[10], 16);
  EXPECT_THROW(static_cast<void>(reader_.find(1)), Vasta::Corruption);
  EXPECT_THROW(static_cast<void>(table_.find(1)), Vasta::Corruption);
}

TEST_F(VastaUsedSize, ASizeBeyondTheRecordIsCutToIt) {
  List wild = List::of(1, 301);
  wild.count = 0xFFFFFFFF;
  table_.is(wild);
  EXPECT_EQ(reader_.find(1), wild);
}

}  // namespace
