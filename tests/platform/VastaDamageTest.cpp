// Tables of which single bits have flipped: noticed, or of no consequence; never a wrong record.
#include <sys/stat.h>

#include "VastaTestRecords.h"

namespace VastaTest {
namespace {

Label labelOf(std::uint8_t number, std::uint8_t version) {
  Label label;
  label.name.label.fill(number);
  label.after.fill(version);
  return label;
}

using Model = std::map<LabelKey, Label>;

// Overwritten, removed and fresh records.
Model fill(Table<Label>& table) {
  Model model;
  for (std::uint8_t number = 1; number <= 6; ++number) {
    for (std::uint8_t version = 1; version <= 1 + number % 3; ++version) {
      table.is(labelOf(number, version));
      model.insert_or_assign(labelOf(number, 0).name, labelOf(number, version));
    }
  }
  table.del(labelOf(3, 0).name, nullptr);
  model.erase(labelOf(3, 0).name);
  return model;
}

// What a reader makes of a table, which may be damaged.
struct Look {
  bool reported = false;
  bool missed = false;  // of the records that are looked up

  Look(const std::string& name, const Model& model) {
    try {
      Reader<Label> reader{name};
      const std::size_t size = reader.size();
      std::size_t met = 0;
      Hint hint;
      Label label;
      for (bool more = true; more;) {
        reportedWithin([&] {
          more = reader.next(hint, label);
          met += more ? 1 : 0;
          EXPECT_TRUE(!more || isRight(model, label)) << "a walk met a wrong record";
        });
      }
      reported = reported || met != size;
      for (std::uint8_t number = 0; number <= 7; ++number) {
        reportedWithin([&] {
          const auto found = reader.find(labelOf(number, 0).name);
          EXPECT_TRUE(!found || isRight(model, *found)) << "a look-up found a wrong record";
          missed = missed || found.has_value() != model.contains(labelOf(number, 0).name);
        });
      }
      Vasta::FollowCursor cursor;
      for (int pass = 0; pass < 8; ++pass) {
        reportedWithin([&] {
          reader.follow(cursor, [&](const Vasta::RowChange& change, const Label& told) {
            EXPECT_TRUE(!change.live || isRight(model, told))
                << "a follower was told a wrong record";
          });
        });
      }
    } catch (const AttachError&) {
      reported = true;
    }
  }

 private:
  static bool isRight(const Model& model, const Label& label) {
    const auto known = model.find(label.name);
    return known != model.end() && known->second == label;
  }
  template <class Work>
  void reportedWithin(Work work) {
    try {
      work();
    } catch (const Corruption&) {
      reported = true;
    }
  }
};

class VastaDamage : public testing::Test {
 protected:
  [[nodiscard]] Vasta::SegmentNames names() const { return Vasta::SegmentNames{*name_}; }
  [[nodiscard]] Table<Label> open() const { return Table<Label>{name_.options()}; }

  // Calls check() with each bit of the first `end` bytes flipped that `wanted(bytes, byte, bit)`
  // chooses.
  using Wanted = bool(const Tampering&, std::size_t byte, unsigned bit);
  static bool any(const Tampering&, std::size_t, unsigned) { return true; }
  template <class Check>
  static void flipEach(const Korm::SegmentName& segment, std::size_t end, Check check,
                       Wanted wanted = any) {
    Tampering bytes{segment};
    for (std::size_t byte = 0; byte < std::min(end, bytes.size()); ++byte) {
      for (unsigned bit = 0; bit < 8; ++bit) {
        if (wanted(bytes, byte, bit)) {
          const auto mask = static_cast<std::uint8_t>(1U << bit);
          bytes.flipByte(byte, mask);
          SCOPED_TRACE("bit " + std::to_string(bit) + " of byte " + std::to_string(byte));
          check();
          bytes.flipByte(byte, mask);
          ASSERT_FALSE(testing::Test::HasFailure());
        }
      }
    }
  }

  TableName name_;
};

TEST_F(VastaDamage, AReaderReportsOrRefusesEveryFlippedBitThatMatters) {
  const Model model = [this] {
    Table<Label> table = open();
    return fill(table);
  }();
  const Look whole{*name_, model};
  ASSERT_FALSE(whole.reported || whole.missed);

  std::size_t harmless = 0;
  const auto mattersOrIsReported = [&] {
    const Look look{*name_, model};
    EXPECT_TRUE(look.reported || !look.missed);
    harmless += look.reported ? 0 : 1;
  };
  flipEach(names().header(), Vasta::Header::words_ * Vasta::wordSize, mattersOrIsReported);
  // Unused words, and the mark of a removed table.
  EXPECT_LE(harmless, (Vasta::Header::words_ - 12) * 64);

  harmless = 0;
  flipEach(names().rows(), 9 * 64, mattersOrIsReported);
  EXPECT_GT(harmless, 0U) << "the spare cell";

  // The index is not summed: a damaged entry may hide its record from look-ups, but from no walk.
  flipEach(
      names().index(1), SIZE_MAX,
      [&] {
        const Look look{*name_, model};
      },
      [](const Tampering& bytes, std::size_t byte, unsigned bit) {
        return byte >= 64 && (bytes.word(byte / 8) != 0 || byte % 64 == bit);
      });
  // Its own header is compared as it is.
  flipEach(names().index(1), 32, [&] { EXPECT_TRUE((Look{*name_, model}.reported)); });
  Tampering{names().index(1)}.wordIs(2, 1024);
  EXPECT_TRUE((Look{*name_, model}.reported)) << "there are but 512 entries";
}

TEST_F(VastaDamage, ASuccessorRefusesOrTakesOverWhatIsWholeAndReportsTheRest) {
  std::mt19937 random{5};
  for (std::size_t flip = 0; flip < 1'200; ++flip) {
    const TableName name;
    const Vasta::SegmentNames names{*name};
    Model model;
    {
      Table<Label> table{name.options()};
      model = fill(table);
    }
    const bool inHeader = flip % 3 == 0;
    const std::size_t byte = random() % (inHeader ? 26 * 8 : 8 * 64);
    Tampering{inHeader ? names.header() : names.rows()}.flipByte(
        byte, static_cast<std::uint8_t>(1U << random() % 8));
    SCOPED_TRACE((inHeader ? "header byte " : "row byte ") + std::to_string(byte));
    try {
      Table<Label> table{name.options()};
      std::size_t met = 0;
      for (const auto& [key, label] : model) {
        const Label* const found = table.find(key);
        ASSERT_TRUE(found == nullptr || *found == label);
        met += found == nullptr ? 0 : 1;
      }
      ASSERT_EQ(met + table.corruptionCount(), table.size());
      ASSERT_TRUE(met == model.size() || table.corruptionCount() == 1);
      // It can be used, and once it is cleared nothing of the damage is left.
      table.is(labelOf(9, 9));
      ASSERT_EQ(*table.find(labelOf(9, 0).name), labelOf(9, 9));
      table.delAll();
      ASSERT_EQ(violation(table), "none");
      ASSERT_EQ(Reader<Label>{*name}.size(), 0U);
    } catch (const AttachError&) {
      ASSERT_TRUE(inHeader);
    }
  }
}

TEST_F(VastaDamage, AWriterSurvivesDamagedEntriesOfItsIndex) {
  std::mt19937 random{7};
  for (int round = 0; round < 600; ++round) {
    const TableName name;
    Table<Label> table{name.options(true)};
    const Model model = fill(table);
    {
      Tampering index{Vasta::SegmentNames{*name}.index(1)};
      std::size_t byte = 0;
      do {
        byte = 64 + random() % (512 * 8);
      } while (index.word(byte / 8) == 0);
      index.flipByte(byte, static_cast<std::uint8_t>(1U << random() % 8));
      if (round % 6 == 0) {  // an index in which no entry is empty any more
        for (std::size_t word = 8; word < 8 + 512; ++word) {
          index.flipByte(word * 8 + 1, 0x40);
        }
      }
    }
    for (std::uint8_t number = 1; number <= 6; ++number) {
      const auto known = model.find(labelOf(number, 0).name);
      try {
        const Label* const found = table.find(labelOf(number, 0).name);
        ASSERT_TRUE(found == nullptr || (known != model.end() && *found == known->second));
        table.is(labelOf(number, 7));
        ASSERT_EQ(*table.find(labelOf(number, 0).name), labelOf(number, 7));
        table.del(labelOf(number, 0).name, nullptr);
      } catch (const Corruption&) {
      } catch (const std::system_error&) {
        ASSERT_EQ(round % 6, 0) << "only a full index refuses";
      }
    }
    table.delAll();
    ASSERT_EQ(table.size(), 0U);
  }
}

TEST_F(VastaDamage, AReaderStopsWhereTheRowsStopAndGoesOnWhenTheyAreBack) {
  Table<Label> table = open();
  for (std::uint8_t number = 0; number < 250; ++number) {
    table.is(labelOf(number, 1));
  }
  Reader<Label> early{*name_};
  Tampering header{names().header()};
  // A count with a right check of which the rows are not there.
  const std::uint64_t count = header.word(Vasta::Header::rowCount_);
  header.wordIs(Vasta::Header::rowCount_, Vasta::checkedWord(1'000'000));
  Hint hint;
  Label label;
  EXPECT_THROW(static_cast<void>(early.next(hint, label)), AttachError);
  EXPECT_THROW(Reader<Label>{*name_}, AttachError);
  header.wordIs(Vasta::Header::rowCount_, count);
  EXPECT_TRUE(early.next(hint, label));
  EXPECT_EQ(Reader<Label>{*name_}.size(), 250U);
}

}  // namespace
}  // namespace VastaTest
