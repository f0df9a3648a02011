// Shared tables bound to entities: notification, and placement in named memory.

#include "VastaTestRecords.h"
#include "platform/Korm/Activity.h"
#include "platform/KormVasta/SharedMemory.h"
#include "platform/KormVasta/TableBinding.h"
#include "platform/KormVasta/TableEntity.h"
#include "platform/Tessel/Tessel.h"
#include "tests/Heard.h"

namespace KormVasta {
namespace {

using namespace TestSupport;

using Vasta::MountState;
using VastaTest::Route;

class RouteTable final : public TableEntity<Route> {
 public:
  using TableEntity::TableEntity;
};

using Keys = Heard<std::uint64_t>;

TEST(TableEntity, MayBeChangedByItsReactorsAndKeepsWhatTheyThrowAbout) {
  const auto table = Korm::makePtr<RouteTable>("routes");
  Keys first{table->entryNotifiees()};
  Keys second{table->entryNotifiees()};
  first.actionIs([&](std::uint64_t key) {
    if (key == 1 && table->entry(1) != nullptr) {
      table->entryDel(table->entry(1)->key());
      table->entryIs(Route::of(3, 1));
      table->entryIs(Route::of(3, 2));
    }
    if (key == 2) {
      throw 2;
    }
  });
  table->entryIs(Route::of(1, 1));
  EXPECT_EQ(table->entries(), 1U);
  EXPECT_THAT(second.take(), ElementsAre(1, 3, 3, 1));
  EXPECT_THROW(table->entryIs(Route::of(2, 1)), int);
  EXPECT_NE(table->entry(2), nullptr);
  EXPECT_THAT(second.take(), ElementsAre(2));
}

TEST(TableEntity, IsEmptiedToTheLastRowThoughReactorsThrow) {
  const auto table = Korm::makePtr<RouteTable>("routes");
  for (std::uint64_t key = 0; key < 5; ++key) {
    table->entryIs(Route::of(key, 1));
  }
  Keys thrower{table->entryNotifiees()};
  Keys other{table->entryNotifiees()};
  thrower.actionIs([](std::uint64_t key) {
    if (key != 1) {
      throw key;
    }
  });
  EXPECT_THAT([&] { table->entryDelAll(); }, testing::Throws<std::uint64_t>(testing::Eq(0U)));
  EXPECT_EQ(table->entries(), 0U);
  EXPECT_THAT(other.take(), ElementsAre(0, 1, 2, 3, 4));
  EXPECT_EQ(table->table().verify(), std::nullopt);
}

// What a table tells its entity besides keys.
class Owner final : public TableOwner<std::uint64_t> {
 public:
  void tableNotify(const std::uint64_t& key) override { heard.push_back(std::to_string(key)); }
  void tableNotifyQuiesced(bool quiesced) override {
    heard.emplace_back(quiesced ? "quiet" : "busy");
  }
  void tableNotifyMountStatus() override {
    constexpr std::array<const char*, 4> names{"unmounted", "mounting", "mounted", "failed"};
    heard.emplace_back(names.at(static_cast<std::size_t>(binding->table().mountState())));
  }
  std::vector<std::string> take() { return std::exchange(heard, {}); }

  std::vector<std::string> heard;
  std::unique_ptr<TableBinding<Route>> binding =
      std::make_unique<TableBinding<Route>>("table", *this);
};

class Placed : public testing::Test {
 protected:
  Placed() : prefix_{uniqueName("korm")} { Korm::activity().clear(); }
  ~Placed() override {
    sharedMemoryIs({});
    for (const char* path : {"routes/entry", "dir/routes/entry", "dir/routes/table"}) {
      Vasta::removeTable(segment(path));
    }
  }
  [[nodiscard]] std::string segment(std::string_view path) const {
    return segmentName(prefix_, path);
  }
  void named(bool takeOver = false) { sharedMemoryIs({.prefix = prefix_, .takeOver = takeOver}); }

  const std::string prefix_;
  Korm::Ptr<Tessel::EntityManager> manager_ = Korm::makePtr<Tessel::EntityManager>();
  Korm::Ptr<Korm::Dir> dir_ = Korm::makePtr<Korm::Dir>("dir");
};

TEST_F(Placed, ATableIsMountedWhereItsEntityStandsAndToldQuietOnce) {
  Owner owner;
  owner.binding->handleParent(*dir_, "routes");
  EXPECT_EQ(owner.binding->table().name(), "table") << "still anonymous";
  owner.binding->table().is(Route::of(1, 1));
  owner.binding->table().del(1);
  EXPECT_THAT(owner.take(), ElementsAre("mounting", "mounted", "busy", "1", "1"));
  named();
  owner.binding->handleParent(*dir_, "routes");
  EXPECT_EQ(owner.binding->table().name(), "dir/routes/table");
  owner.binding->table().mountStateIs(MountState::mounted_);
  Korm::activity().run();
  EXPECT_THAT(owner.take(), ElementsAre("mounting", "quiet", "mounted"));
  owner.binding->table().is(Route::of(1, 1));
  owner.binding->handleParent(*dir_, "routes");
  EXPECT_THAT(owner.take(), ElementsAre("busy", "1", "mounting", "mounted"));
  EXPECT_NE(owner.binding->table().find(1), nullptr) << "placed again where it is";
}

TEST_F(Placed, ASegmentThatCannotBeHadLeavesTheTableWhereItWas) {
  named(true);
  Vasta::Table<Route> other{{.name = "other", .shmName = segment("dir/routes/table")}};
  Owner owner;
  owner.binding->table().is(Route::of(1, 1));
  owner.take();
  EXPECT_THROW(owner.binding->handleParent(*dir_, "routes"), Vasta::AttachError);
  EXPECT_THAT(owner.take(), ElementsAre("mounting", "failed"));
  EXPECT_NE(owner.binding->table().find(1), nullptr);

  sharedMemoryIs({.prefix = prefix_, .takeOver = false});
  EXPECT_THROW(owner.binding->handleParent(*dir_, "routes"), Vasta::AttachError)
      << "a table in use is not cleared";
}

TEST_F(Placed, AnEntityMovesItsRowsAndItsCorruptionHandlerToTheNamedSegment) {
  named();
  std::vector<std::string> corruptions;
  const auto table = Korm::makePtr<RouteTable>("routes");
  table->corruptionHandlerIs([&](const std::string& message) { corruptions.push_back(message); });
  for (std::uint64_t key = 0; key < 100; ++key) {
    table->entryIs(Route::of(key, 3));
  }
  Keys keys{table->entryNotifiees()};
  manager_->entityIs("dir/routes", table);
  EXPECT_THAT(keys.take(), ElementsAre()) << "a move is no change";
  Vasta::Reader<Route> reader{segment("dir/routes/entry")};
  EXPECT_EQ(reader.size(), 100U);
  EXPECT_TRUE(reader.find(99)->isWhole());
  table->entryIs(Route::of(99, 4));
  EXPECT_EQ(reader.find(99)->version, 4U);
  EXPECT_THAT(keys.take(), ElementsAre(99));

  const Route damaged = Route::of(50, 3);
  VastaTest::Tampering{Vasta::SegmentNames{segment("dir/routes/entry")}.rows()}.flip(
      &damaged.payload, 16);
  table->reportCorruption(
      messageOf<Vasta::Corruption>([&] { static_cast<void>(table->entry(50)); }));
  ASSERT_EQ(corruptions.size(), 1U);
  EXPECT_THAT(corruptions.front(), HasSubstr("dir/routes/entry"));
}

}  // namespace
}  // namespace KormVasta
