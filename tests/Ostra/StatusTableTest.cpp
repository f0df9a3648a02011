#include "ServiceFixture.h"

namespace OstraTest {
namespace {

using KormVasta::CollectionControl;
using Ostra::OstraStatus;
using Ostra::OstraStatusEntry;

OstraStatusEntry entry(std::uint16_t port, std::uint64_t handle) {
  return {{.entryHandle = handle}, plainKey(port)};
}

class StatusTable : public testing::Test {
 protected:
  // What a fault in memory does to a row.
  void damage(std::uint16_t port) {
    const_cast<OstraStatusEntry*>(status_->table().find(plainKey(port)))->genId ^= 1U;
  }
  [[nodiscard]] std::uint64_t count(const char* counter) const {
    return status_->activityCounters().value(counter);
  }

  Korm::Ptr<OstraStatus> status_ = Ostra::ostraStatusFactory("table-3");
  Heard<OstraKey> told_{status_->notifieeList()};
  using Told = std::vector<OstraKey>;
};

TEST_F(StatusTable, TellsTheKeyOfEveryChangeAndCountsThem) {
  status_->tableIs(entry(1, 10));
  status_->tableIs(entry(1, 10));
  status_->tableIs(entry(2, 20));
  EXPECT_EQ(told_.take(), (Told{plainKey(1), plainKey(1), plainKey(2)}));

  OstraStatusEntry* const staged = status_->tableEdit(plainKey(2));
  ASSERT_NE(staged, nullptr);
  staged->deleted = true;
  EXPECT_FALSE(status_->table().find(plainKey(2))->deleted) << "not before it is committed";
  status_->tableCommit(staged);
  EXPECT_TRUE(status_->table().find(plainKey(2))->deleted);
  EXPECT_EQ(told_.take(), Told{plainKey(2)});

  const OstraStatusEntry* const outdated = status_->tableEdit(plainKey(1));
  EXPECT_EQ(status_->tableDel(plainKey(1)), entry(1, 10));
  EXPECT_EQ(told_.take(), Told{plainKey(1)});
  status_->tableCommit(outdated);
  EXPECT_EQ(told_.take(), Told{}) << "its row has gone";
  EXPECT_TRUE(!status_->tableDel(plainKey(1)));
  EXPECT_EQ(status_->tableEdit(plainKey(1)), nullptr);
  EXPECT_EQ(told_.take(), Told{}) << "nothing was removed";

  status_->tableIs(entry(3, 30));
  status_->tableDelAll();
  EXPECT_EQ(told_.take().size(), 3U);
  EXPECT_EQ(status_->table().size(), 0U);

  EXPECT_EQ(count("tableIs"), 6U);
  EXPECT_EQ(count("tableDel"), 4U);
  EXPECT_EQ(count("tableNotify"), 8U);
}

TEST_F(StatusTable, ACorruptRowGoesToTheHandlerAndToNobodyElse) {
  std::vector<std::string> reports;
  status_->corruptionHandlerIs([&](const std::string& text) { reports.push_back(text); });
  for (std::uint16_t port = 1; port <= 3; ++port) {
    status_->tableIs(entry(port, port));
  }
  damage(2);
  told_.take();
  const std::string text = messageOf<Vasta::Corruption>(
      [this] { static_cast<void>(status_->table().find(plainKey(2))); });

  EXPECT_TRUE(!status_->tableDel(plainKey(2)));
  EXPECT_EQ(status_->tableEdit(plainKey(2)), nullptr);
  EXPECT_EQ(reports, (std::vector{text, text}));
  EXPECT_EQ(told_.take(), Told{});

  status_->tableDelAll();
  EXPECT_EQ(reports.size(), 3U);
  EXPECT_EQ(told_.take(), (Told{plainKey(1), plainKey(3)}));

  status_->tableIs(entry(2, 22));
  EXPECT_EQ(told_.take(), Told{plainKey(2)}) << "a write heals the row";
  EXPECT_EQ(status_->table().verify(), std::nullopt);
}

TEST_F(StatusTable, AnExceptionOfAnObserverDoesNotUndoTheChange) {
  told_.actionIs([](const OstraKey&) { throw Vasta::Corruption{"another table", 1, 2, 3}; });
  EXPECT_THROW(status_->tableIs(entry(1, 10)), Vasta::Corruption);
  EXPECT_EQ(status_->table().corruptionCount(), 0U) << "it is not this table that is corrupt";
  EXPECT_EQ(status_->table().size(), 1U);
}

TEST_F(StatusTable, TheControlFollowsTheTable) {
  const auto control = status_->tableControl();
  EXPECT_EQ(control->mountState(), Vasta::MountState::unmounted_);
  EXPECT_TRUE(control->quiesced());
  status_->tableIs(entry(1, 10));
  EXPECT_FALSE(control->quiesced());
  Korm::activity().run();
  EXPECT_TRUE(control->quiesced());
  const auto dir = Korm::makePtr<Korm::Dir>("status");
  dir->entityIs(status_->name(), status_);
  EXPECT_EQ(control->mountState(), Vasta::MountState::mounted_);

  status_->tableIs(entry(2, 20));
  const auto another = Korm::makePtr<CollectionControl>();
  status_->tableControlIs(another);
  EXPECT_FALSE(another->quiesced()) << "it shows the table's state at once";
  EXPECT_EQ(another->mountState(), Vasta::MountState::mounted_);
  EXPECT_EQ(control->references(), 1U);
  Korm::activity().run();
  EXPECT_TRUE(another->quiesced());
  EXPECT_FALSE(control->quiesced()) << "the one replaced hears no more";
}

// Whether an entity is still there shows in what is attached to it.
TEST_F(StatusTable, IsDestroyedWithItsLastOutsideReference) {
  Listener<> watch{status_->zeroReferencesNotifiees()};
  status_->tableControlIs(status_->tableControl());
  status_->tableIs(entry(1, 10));
  Korm::Ptr<OstraStatus> another = status_;
  status_ = nullptr;
  EXPECT_EQ(watch.take(), 0);
  another = nullptr;
  EXPECT_EQ(watch.take(), 1);
  EXPECT_FALSE(watch.attached());
  EXPECT_FALSE(told_.attached());
  Korm::activity().run();  // what the table put off is void
}

TEST_F(StatusTable, LivesOnWithAControlThatSomebodyHolds) {
  Korm::Ptr<CollectionControl> control = status_->tableControl();
  status_->tableIs(entry(1, 10));
  told_.take();
  OstraStatus& kept = *status_;
  status_ = nullptr;
  ASSERT_TRUE(told_.attached());
  EXPECT_EQ(control->entity().get(), &kept);
  EXPECT_EQ(kept.tableControl(), nullptr);
  EXPECT_TRUE(kept.zeroReferencesNotifiees().empty()) << "its observer has left";

  kept.tableIs(entry(2, 20));
  EXPECT_EQ(told_.take(), Told{plainKey(2)});
  Korm::activity().run();  // the table becomes quiet, and there is no control to tell
  { const Korm::Ptr<OstraStatus> visitor{&kept}; }
  EXPECT_TRUE(told_.attached());
  control = nullptr;
  EXPECT_FALSE(told_.attached());
}

TEST(StatusTableColl, TellsTheSlotsThatGetAnotherTable) {
  const auto coll = Ostra::ostraStatusTableCollFactory("tables");
  Heard<FlowTableIndex> told{coll->ostraStatusNotifiees()};
  using Told = std::vector<FlowTableIndex>;
  const auto a = Ostra::ostraStatusFactory("a");
  const auto b = Ostra::ostraStatusFactory("b");

  coll->ostraStatusIs(15, a);
  coll->ostraStatusIs(15, a);
  coll->ostraStatusIs(3, b);
  EXPECT_EQ(told.take(), (Told{FlowTableIndex{15}, FlowTableIndex{3}}));
  coll->ostraStatusIs(15, b);
  EXPECT_EQ(a->references(), 1U);
  EXPECT_EQ(told.take(), Told{FlowTableIndex{15}});

  std::vector<std::pair<int, Korm::Ptr<OstraStatus>>> slots;
  for (const auto& [index, status] : *coll) {
    slots.emplace_back(index.value(), status);
  }
  EXPECT_EQ(slots, (decltype(slots){{3, b}, {15, b}}));
  slots.clear();
  EXPECT_EQ((*coll->from(4)).index, FlowTableIndex{15});
  EXPECT_EQ(coll->ostraStatusDel(0), nullptr);
  EXPECT_EQ(told.take(), Told{});
  EXPECT_EQ(coll->ostraStatusDel(15), b);
  EXPECT_EQ(coll->from(4), coll->end());
  coll->ostraStatusIs(0, a);
  told.take();
  coll->ostraStatusDelAll();
  EXPECT_EQ(told.take(), (Told{FlowTableIndex{0}, FlowTableIndex{3}}));
  EXPECT_EQ(a->references() + b->references(), 2U);
}

TEST(StatusTableColl, HasSixteenSlots) {
  const auto coll = Ostra::ostraStatusTableCollFactory("tables");
  for (const std::uint64_t none : {std::uint64_t{16}, std::uint64_t{259}, ~std::uint64_t{0}}) {
    EXPECT_DEATH(coll->ostraStatusIs(none, nullptr), "Assertion failed: .*Ostra/OstraStatus:");
    EXPECT_DEATH(coll->ostraStatusDel(none), "Assertion failed");
    EXPECT_DEATH(static_cast<void>(coll->ostraStatus(none)), "Assertion failed");
  }
  for (const long long none : {-1LL, 16LL, 0x1'0000'0000LL}) {
    EXPECT_THAT([&] { static_cast<void>(coll->from(none)); },
                testing::ThrowsMessage<Korm::RangeException>(
                    "FlowTableIndex::value < 0 or > FlowTableIndex::max not allowed"));
  }
}

}  // namespace
}  // namespace OstraTest
