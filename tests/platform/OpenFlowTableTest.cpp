// The static-flow feature: configuration of flows and groups, their status, and who hears of it.
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

TEST_F(HwConfigTest, AFlowKeepsItsIdAndChangeCountUntilItIsRemovedAndIsToldOfEachTime) {
  FlowEntry& entry = flow("flow-1", 9);
  entry.entryIdIs(7);
  entry.changeCountIs(1.5);
  EXPECT_EQ(&flow("flow-1", 8), &entry);
  EXPECT_EQ(entry.priority(), Priority{8});
  EXPECT_EQ(entry.entryId(), 7U);
  EXPECT_EQ(entry.changeCount(), 1.5);
  EXPECT_THAT(flows_.take(), ElementsAre("flow-1", "flow-1"));

  EXPECT_TRUE(config_->flowEntryDel(config_->flowEntries().begin()->key));
  EXPECT_FALSE(config_->flowEntryDel("flow-1"));
  EXPECT_THAT(flows_.take(), ElementsAre("flow-1"));
  EXPECT_EQ(flow("flow-1").entryId(), 0U);
}

TEST_F(HwConfigTest, AGroupIsToldWhenItIsCreatedCountedAndRemoved) {
  GroupEntry& group = config_->groupEntryIs(5);
  EXPECT_EQ(&config_->groupEntryIs(5), &group);
  group.bucketEnq({});
  group.readyIs(true);
  EXPECT_THAT(groups_.take(), ElementsAre(5)) << "only its coming";
  groups_.actionIs([&](GroupId) { EXPECT_EQ(group.changeCount(), 2.5); });
  group.changeCountIs(2.5);
  group.changeCountIs(2.5);
  EXPECT_THAT(groups_.take(), ElementsAre(5, 5)) << "a count that is written is a change";
  groups_.actionIs({});
  EXPECT_TRUE(config_->groupEntryDel(5));
  EXPECT_FALSE(config_->groupEntryDel(5));
  EXPECT_THAT(groups_.take(), ElementsAre(5));
}

TEST_F(HwConfigTest, AReactorMayDeleteTheFlowOrTheGroupThatItHearsOf) {
  const Korm::Name name(100, 'f');
  flow(name);
  flows_.take();
  flows_.actionIs([this](const Korm::Name& told) { config_->flowEntryDel(told); });
  flow(config_->flowEntries().begin()->key);
  EXPECT_THAT(flows_.take(), ElementsAre(name, name));
  EXPECT_TRUE(config_->flowEntries().empty());

  GroupEntry& group = config_->groupEntryIs(5);
  groups_.take();
  groups_.actionIs([this](GroupId id) { config_->groupEntryDel(id); });
  group.changeCountIs(1);
  EXPECT_EQ(config_->groupEntry(5), nullptr);
  EXPECT_THAT(groups_.take(), ElementsAre(5, 5));
}

class HwStatusTest : public testing::Test {
 protected:
  Korm::Ptr<HwStatus> status_ = Korm::makePtr<HwStatus>("p4rt");
  Listener<Korm::Name> flows_{status_->flowStatsNotifiees()};
  Listener<GroupId> groups_{status_->groupStatsNotifiees()};
};

TEST_F(HwStatusTest, StatisticsAreToldWhenTheyComeAndGo) {
  FlowStats& stats = status_->flowStatsIs("flow-1", FlowStatus::hardwareFull_);
  EXPECT_EQ(&status_->flowStatsIs("flow-1", FlowStatus::programmed_), &stats);
  EXPECT_EQ(stats.status(), FlowStatus::hardwareFull_) << "what is there is left as it is";
  status_->flowStatsIs("flow-2");
  EXPECT_TRUE(status_->flowStatsDel(stats.name()));
  EXPECT_FALSE(status_->flowStatsDel("flow-1"));
  EXPECT_THAT(flows_.take(), ElementsAre("flow-1", "flow-2", "flow-1"));

  status_->groupStatsIs(5);
  status_->groupStatsIs(5, GroupStatus::hardwareError_);
  EXPECT_EQ(status_->groupStats(5)->status(), GroupStatus::ready_);
  EXPECT_TRUE(status_->groupStatsDel(5));
  EXPECT_FALSE(status_->groupStatsDel(5));
  EXPECT_THAT(groups_.take(), ElementsAre(5, 5));
}

}  // namespace
}  // namespace OpenFlowTable
