// The static-flow feature: configuration of flows and groups, their status, and who hears of it.
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/CorvexConfig/Config.h"
#include "platform/Korm/Dir.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/OpenFlowTable/HwStatus.h"

namespace OpenFlowTable {
namespace {

using testing::ElementsAre;

// Writes down what it hears.
template <class Key>
class Listener final : public Korm::Notifiee<const Key&> {
 public:
  explicit Listener(Korm::NotifieeList<const Key&>& list) { list.attach(*this); }
  void onAttribute(const Key& key) override {
    if (const auto action = action_) {
      action(key);
    }
    heard_.push_back(key);
  }
  void actionIs(std::function<void(const Key&)> action) { action_ = std::move(action); }
  std::vector<Key> take() { return std::exchange(heard_, {}); }

 private:
  std::function<void(const Key&)> action_;
  std::vector<Key> heard_;
};
class Counter final : public Korm::Notifiee<> {
 public:
  explicit Counter(Korm::NotifieeList<>& list) { list.attach(*this); }
  void onAttribute() override {
    ++count_;
    if (const auto action = action_) {
      action();
    }
  }
  void actionIs(std::function<void()> action) { action_ = std::move(action); }
  [[nodiscard]] int count() const { return count_; }

 private:
  std::function<void()> action_;
  int count_ = 0;
};

class HwConfigTest : public testing::Test {
 protected:
  FlowEntry& flow(const Korm::Name& name, int priority = 1) {
    return config_->flowEntryIs(name, {}, {}, Priority{priority}, 2, TableType::l3_, 3, 4.5, 5.5,
                                true, false);
  }
  Korm::Ptr<CorvexHwConfig> config_ = Korm::makePtr<CorvexHwConfig>("p4rt");
  Listener<Korm::Name> flows_{config_->flowEntryNotifiees()};
  Listener<GroupId> groups_{config_->groupEntryNotifiees()};
};

TEST_F(HwConfigTest, AFlowIsWrittenWholeAndKeepsItsIdAndChangeCountWhenItIsRewritten) {
  Match match;
  match.inIntfIs(Interface::IntfId{"Ethernet1"}, true);
  Actions actions;
  actions.dropIs(true);
  FlowEntry& entry = config_->flowEntryIs("flow-1", match, actions, Priority{9}, 2, TableType::l3_,
                                          3, 4.5, 5.5, true, false);
  EXPECT_EQ(config_->flowEntry("flow-1"), &entry);
  EXPECT_EQ(entry.match(), match);
  EXPECT_EQ(entry.actions(), actions);
  EXPECT_EQ(entry.priority(), Priority{9});
  EXPECT_EQ(entry.priorityGroupType(), 2U);
  EXPECT_EQ(entry.tableType(), TableType::l3_);
  EXPECT_EQ(entry.cookie(), 3U);
  EXPECT_EQ(entry.idleTimeout(), 4.5);
  EXPECT_EQ(entry.hardTimeout(), 5.5);
  EXPECT_TRUE(entry.sendFlowRemoved());
  EXPECT_FALSE(entry.persistent());
  EXPECT_EQ(entry.entryId(), 0U);
  EXPECT_EQ(entry.changeCount(), 0);
  entry.entryIdIs(7);
  entry.changeCountIs(1.5);
  EXPECT_THAT(flows_.take(), ElementsAre("flow-1"));

  EXPECT_EQ(&flow("flow-1", 8), &entry);
  EXPECT_EQ(entry.priority(), Priority{8});
  EXPECT_EQ(entry.match(), Match{});
  EXPECT_EQ(entry.entryId(), 7U);
  EXPECT_EQ(entry.changeCount(), 1.5);
  EXPECT_THAT(flows_.take(), ElementsAre("flow-1"));
}

TEST_F(HwConfigTest, AFlowsRemovalIsToldOnceAndANewOneStartsAfresh) {
  flow("flow-1").entryIdIs(7);
  flows_.take();
  const Korm::Name& name = config_->flowEntries().begin()->key;
  EXPECT_TRUE(config_->flowEntryDel(name));
  EXPECT_FALSE(config_->flowEntryDel("flow-1"));
  EXPECT_THAT(flows_.take(), ElementsAre("flow-1"));
  EXPECT_EQ(config_->flowEntry("flow-1"), nullptr);
  EXPECT_EQ(flow("flow-1").entryId(), 0U);
}

TEST_F(HwConfigTest, AReactorMayDeleteTheFlowThatItHearsOf) {
  const Korm::Name name(100, 'f');
  flow(name);
  flows_.take();
  flows_.actionIs([this](const Korm::Name& told) { config_->flowEntryDel(told); });
  flow(config_->flowEntries().begin()->key);
  EXPECT_THAT(flows_.take(), ElementsAre(name, name));
  EXPECT_TRUE(config_->flowEntries().empty());
}

TEST_F(HwConfigTest, AWalkSurvivesTheDeletionOfTheFlowOnWhichItStands) {
  for (int number = 0; number < 100; ++number) {
    flow("flow-" + std::to_string(number));
  }
  std::set<Korm::Name> met;
  for (const auto& entry : config_->flowEntries()) {
    met.insert(entry.key);
    if (entry.key != "flow-50") {
      config_->flowEntryDel(entry.key);
    }
  }
  EXPECT_EQ(met.size(), 100U);
  EXPECT_EQ(config_->flowEntries().size(), 1U);
}

TEST_F(HwConfigTest, AGroupIsToldWhenItIsCreatedChangedAndRemoved) {
  GroupEntry& group = config_->groupEntryIs(5);
  EXPECT_EQ(group.id(), 5U);
  EXPECT_FALSE(group.ready());
  EXPECT_FALSE(group.deleted());
  EXPECT_THAT(groups_.take(), ElementsAre(5));
  EXPECT_EQ(&config_->groupEntryIs(5), &group);
  group.groupTypeIs(GroupType::select_);
  Bucket bucket;
  bucket.actions.vrfIs(9, true);
  group.bucketReserve(2);
  group.bucketEnq(bucket);
  group.bucketEnq(Bucket{});
  group.readyIs(true);
  EXPECT_THAT(groups_.take(), ElementsAre());
  groups_.actionIs([&](GroupId) { EXPECT_EQ(group.changeCount(), 2.5); });
  group.changeCountIs(2.5);
  group.changeCountIs(2.5);
  EXPECT_THAT(groups_.take(), ElementsAre(5, 5)) << "a count that is written is a change";
  groups_.actionIs({});
  EXPECT_EQ(group.buckets(), 2U);
  EXPECT_EQ(group.bucket().front(), bucket);
  group.bucketDelAll();
  EXPECT_EQ(group.buckets(), 0U);
  EXPECT_TRUE(config_->groupEntryDel(5));
  EXPECT_FALSE(config_->groupEntryDel(5));
  EXPECT_EQ(config_->groupEntry(5), nullptr);
  EXPECT_THAT(groups_.take(), ElementsAre(5));
}

TEST_F(HwConfigTest, AReactorMayDeleteTheGroupWhoseCountIsWritten) {
  GroupEntry& group = config_->groupEntryIs(5);
  groups_.take();
  groups_.actionIs([this](GroupId id) { config_->groupEntryDel(id); });
  group.changeCountIs(1);
  EXPECT_EQ(config_->groupEntry(5), nullptr);
  EXPECT_THAT(groups_.take(), ElementsAre(5, 5));
}

TEST_F(HwConfigTest, CounterPollingAndTheFeatureAreOffAtFirstAndToldOnceEach) {
  Counter polls{config_->counterPollEnableNotifiees()};
  EXPECT_FALSE(config_->counterPollEnable());
  config_->counterPollEnableIs(true);
  config_->counterPollEnableIs(true);
  EXPECT_TRUE(config_->counterPollEnable());
  EXPECT_EQ(polls.count(), 1);

  const auto feature = Korm::makePtr<CorvexConfig::Config>("p4rt");
  Counter enables{feature->enabledNotifiees()};
  EXPECT_FALSE(feature->enabled());
  feature->enabledIs(true);
  feature->enabledIs(true);
  EXPECT_TRUE(feature->enabled());
  EXPECT_EQ(enables.count(), 1);
}

class HwStatusTest : public testing::Test {
 protected:
  Korm::Ptr<HwStatus> status_ = Korm::makePtr<HwStatus>("p4rt");
  Listener<Korm::Name> flows_{status_->flowStatsNotifiees()};
  Listener<GroupId> groups_{status_->groupStatsNotifiees()};
};

TEST_F(HwStatusTest, StatisticsAreToldWhenTheyComeAndGo) {
  FlowStats& stats = status_->flowStatsIs("flow-1", FlowStatus::hardwareFull_);
  EXPECT_EQ(stats.status(), FlowStatus::hardwareFull_);
  EXPECT_EQ(stats.name(), "flow-1");
  EXPECT_EQ(&status_->flowStatsIs("flow-1", FlowStatus::programmed_), &stats);
  EXPECT_EQ(stats.status(), FlowStatus::hardwareFull_) << "what is there is left as it is";
  EXPECT_EQ(status_->flowStatsIs("flow-2").status(), FlowStatus::pending_);
  EXPECT_EQ(status_->flowStats(std::string_view{"flow-2"})->name(), "flow-2");
  EXPECT_TRUE(status_->flowStatsDel(stats.name()));
  EXPECT_FALSE(status_->flowStatsDel("flow-1"));
  EXPECT_THAT(flows_.take(), ElementsAre("flow-1", "flow-2", "flow-1"));

  EXPECT_EQ(status_->groupStatsIs(5).status(), GroupStatus::ready_);
  status_->groupStatsIs(5, GroupStatus::hardwareError_);
  EXPECT_EQ(status_->groupStats(5)->status(), GroupStatus::ready_);
  EXPECT_TRUE(status_->groupStatsDel(5));
  EXPECT_FALSE(status_->groupStatsDel(5));
  EXPECT_THAT(groups_.take(), ElementsAre(5, 5));
  EXPECT_EQ(status_->groupStats(5), nullptr);
}

// The same of flows and groups.
template <class Stats, class Status>
void expectSeparateNotifications(Stats& stats, Status other) {
  Counter statuses{stats.statusNotifiees()};
  Counter counts{stats.changeCountNotifiees()};
  stats.statusIs(stats.status());
  EXPECT_EQ(statuses.count(), 0);
  stats.statusIs(other);
  EXPECT_EQ(stats.status(), other);
  EXPECT_EQ(statuses.count(), 1);
  EXPECT_EQ(counts.count(), 0);
  stats.changeCountIs(4.5);
  stats.changeCountIs(4.5);
  EXPECT_EQ(stats.changeCount(), 4.5);
  EXPECT_EQ(counts.count(), 2);
  EXPECT_EQ(statuses.count(), 1);
}

TEST_F(HwStatusTest, StatusAndChangeCountAreToldApart) {
  FlowStats& flow = status_->flowStatsIs("flow-1");
  expectSeparateNotifications(flow, FlowStatus{99});
  expectSeparateNotifications(status_->groupStatsIs(5), GroupStatus::hardwareFull_);
  flow.countersIs(3, 300);
  EXPECT_EQ(flow.packets(), 3U);
  EXPECT_EQ(flow.bytes(), 300U);
  EXPECT_THAT(flows_.take(), ElementsAre("flow-1")) << "only its coming";
}

TEST_F(HwStatusTest, StatisticsMayGoWhileTheirStatusIsTold) {
  FlowStats& flow = status_->flowStatsIs("flow-1");
  Counter first{flow.statusNotifiees()};
  Counter second{flow.statusNotifiees()};
  first.actionIs([this] { status_->flowStatsDel("flow-1"); });
  flow.statusIs(FlowStatus::programmed_);
  EXPECT_EQ(first.count(), 1);
  EXPECT_EQ(second.count(), 0) << "what has gone has nothing to tell";
  EXPECT_FALSE(second.attached());
  EXPECT_THAT(flows_.take(), ElementsAre("flow-1", "flow-1"));
}

TEST_F(HwStatusTest, StatisticsStayInPlaceWhileOthersComeAndGo) {
  const FlowStats* const kept = &status_->flowStatsIs("kept");
  for (int number = 0; number < 1'000; ++number) {
    status_->flowStatsIs("flow-" + std::to_string(number));
    status_->groupStatsIs(static_cast<GroupId>(number) << 32U);
  }
  for (const auto& entry : status_->flowStats()) {
    if (entry.key != "kept") {
      status_->flowStatsDel(entry.value.name());
    }
  }
  EXPECT_EQ(status_->flowStats("kept"), kept);
  EXPECT_EQ(status_->flowStats().size(), 1U);
  EXPECT_EQ(status_->groupStats().size(), 1'000U);
}

// Values.

TEST(Actions, AreThereWhenTheySayAndCompareByAllTheyHold) {
  Actions actions;
  EXPECT_EQ(actions.actionSet(), ActionSet{});
  actions.vrfIs(5, true);
  actions.dropIs(true);
  EXPECT_TRUE(actions.has(Action::vrf_) && actions.has(Action::drop_));
  EXPECT_FALSE(actions.has(Action::group_));
  Actions other = actions;
  EXPECT_EQ(other, actions);
  other.vrfIs(5, false);
  EXPECT_NE(other, actions);
  other.vrfIs(6, true);
  EXPECT_NE(other, actions);
  actions.dropIs(false);
  EXPECT_FALSE(actions.has(Action::drop_));
}

TEST(Actions, EveryActionHasABitOfItsOwn) {
  for (unsigned one = 0; one <= static_cast<unsigned>(Action::fixedBlock_); ++one) {
    ActionSet set;
    set.hasIs(Action{static_cast<std::uint8_t>(one)}, true);
    for (unsigned other = 0; other <= static_cast<unsigned>(Action::fixedBlock_); ++other) {
      EXPECT_EQ(set.has(Action{static_cast<std::uint8_t>(other)}), one == other);
    }
  }
}

TEST(Match, ListsEveryFieldOnceWithABitAndANameOfItsOwn) {
  Match match;
  std::set<std::string> names;
  std::apply(
      [&](const auto&... info) {
        const auto visit = [&](const auto& field) {
          EXPECT_TRUE(names.insert(field.name).second) << field.name;
          EXPECT_FALSE(match.has(field.field)) << field.name;
          match.hasIs(field.field, true);
          EXPECT_TRUE(match.has(field.field));
        };
        (visit(info), ...);
      },
      matchFields);
  EXPECT_EQ(names.size(), static_cast<std::size_t>(Match::Field::l3PacketType_) + 1);
  match.hasIs(Match::Field::tos_, false);
  EXPECT_FALSE(match.has(Match::Field::tos_));
  EXPECT_TRUE(match.has(Match::Field::ttl_));
}

}  // namespace
}  // namespace OpenFlowTable
