// The hardware agent on a Corvex configuration, with nobody else there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Korm/Activity.h"
#include "platform/Korm/Clock.h"
#include "sim/HwAgent.h"

namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupStatus;
using OpenFlowTable::HwStatus;
using testing::ElementsAre;
using testing::IsEmpty;

using Lines = std::vector<std::string>;

class Agent : public testing::Test {
 protected:
  Agent() {
    Korm::clockIs([] { return 1000.0; });
  }
  ~Agent() override {
    agent.verify();
    Korm::activity().run();
    Korm::clockIs(nullptr);
  }

  void flow(const Korm::Name& name) {
    config->flowEntryIs(name, {}, {}, {}, 0, {}, 0, 0, 0, false, true);
  }
  void group(OpenFlowTable::GroupId id) {
    auto& group = config->groupEntryIs(id);
    group.readyIs(true);
    group.changeCountIs(1);
  }
  static void settle() { Korm::activity().run(); }
  [[nodiscard]] Lines published() const {
    Lines lines;
    for (const auto& view : agent.publishedFlows()) {
      lines.push_back(*view.name + " " + std::to_string(static_cast<std::uint32_t>(view.status)));
    }
    for (const auto& view : agent.publishedGroups()) {
      lines.push_back("group " + std::to_string(view.id) + " " +
                      std::to_string(static_cast<std::uint32_t>(view.status)));
    }
    return lines;
  }
  [[nodiscard]] Lines unit(const Korm::Name& name) const {
    Lines lines;
    for (const auto& stats : units->entityPtr<HwStatus>(name)->flowStats()) {
      lines.push_back(stats.key + " " + std::to_string(stats.value.packets()) + " " +
                      std::to_string(stats.value.bytes()));
    }
    return lines;
  }

 public:
  Korm::Ptr<OpenFlowTable::CorvexHwConfig> config =
      Korm::makePtr<OpenFlowTable::CorvexHwConfig>("p4rt");
  Korm::Ptr<Korm::Dir> statuses = Korm::makePtr<Korm::Dir>();
  Korm::Ptr<Korm::Dir> units = Korm::makePtr<Korm::Dir>();
  Sim::HwAgent agent{config, statuses, units};
};

// Keeps the names of flows whose status entries come or go, in order.
class FlowWatcher {
 public:
  explicit FlowWatcher(const HwStatus& status) : status_{status} {}
  [[nodiscard]] Lines takeLines() { return std::exchange(lines_, {}); }

 private:
  void handleFlow(const Korm::Name& name) {
    const auto* const stats = status_.flowStats(name);
    lines_.push_back(name +
                     (stats == nullptr
                          ? " gone"
                          : " " + std::to_string(static_cast<std::uint32_t>(stats->status()))));
  }
  const HwStatus& status_;
  Lines lines_;
  Korm::MemberNotifiee<FlowWatcher, &FlowWatcher::handleFlow, const Korm::Name&> notifiee_{
      *this, status_.flowStatsNotifiees()};
};

TEST_F(Agent, WorksWhenTheProcessIsIdleAndInTheOrderOfTheFirstChange) {
  FlowWatcher watcher{agent.status()};
  flow("b");
  group(7);
  flow("a");
  flow("b");
  flow("c");
  config->flowEntryDel("c");
  EXPECT_THAT(published(), IsEmpty());
  EXPECT_EQ(agent.waiting(), 4U);
  settle();
  EXPECT_THAT(published(), ElementsAre("a 1", "b 1", "group 7 0"));
  EXPECT_THAT(watcher.takeLines(), ElementsAre("b 1", "a 1", "c 0", "c gone"));
  config->flowEntryDel("a");
  config->groupEntryDel(7);
  settle();
  EXPECT_THAT(published(), ElementsAre("b 1"));
}

TEST_F(Agent, InManualModeWaitsToBeTold) {
  agent.automaticIs(false);
  flow("a");
  settle();
  EXPECT_THAT(published(), IsEmpty());
  agent.run();
  EXPECT_THAT(published(), ElementsAre("a 1"));
  flow("b");
  agent.automaticIs(true);
  EXPECT_THAT(published(), ElementsAre("a 1"));
  agent.automaticIs(false);  // before the put-off work has come to run
  settle();
  EXPECT_EQ(agent.waiting(), 1U);
  agent.automaticIs(true);
  settle();
  EXPECT_THAT(published(), ElementsAre("a 1", "b 1"));
}

TEST_F(Agent, PublishesAChangedFlowAgainUnderANewerChangeCount) {
  flow("a");
  group(7);
  settle();
  double flowCount = agent.status().flowStats("a")->changeCount();
  double groupCount = agent.status().groupStats(7)->changeCount();
  for (int change = 0; change < 3; ++change) {
    flow("a");
    group(7);
    settle();
    EXPECT_GT(agent.status().flowStats("a")->changeCount(), flowCount);
    EXPECT_GT(agent.status().groupStats(7)->changeCount(), groupCount);
    flowCount = agent.status().flowStats("a")->changeCount();
    groupCount = agent.status().groupStats(7)->changeCount();
  }
}

TEST_F(Agent, RefusesWhatFindsNoRoomAndTriesItAgainWhenItIsChanged) {
  agent.flowCapacityIs(2);
  agent.groupCapacityIs(0);
  for (const char* name : {"a", "b", "c"}) {
    flow(name);
  }
  group(7);
  settle();
  EXPECT_THAT(published(), ElementsAre("a 1", "b 1", "c 7", "group 7 3"));
  // What has its place keeps it, and one that goes does not pull another one in.
  agent.flowCapacityIs(1);
  flow("a");
  config->flowEntryDel("b");
  settle();
  EXPECT_THAT(published(), ElementsAre("a 1", "c 7", "group 7 3"));
  EXPECT_EQ(agent.flowsProgrammed(), 1U);
  flow("c");
  settle();
  EXPECT_THAT(published(), ElementsAre("a 1", "c 7", "group 7 3"));
  agent.flowCapacityIs(2);
  agent.groupCapacityIs(std::nullopt);
  flow("c");
  group(7);
  settle();
  EXPECT_THAT(published(), ElementsAre("a 1", "c 1", "group 7 0"));
}

TEST_F(Agent, StatusesSetByHandTakeAndGiveRoom) {
  agent.flowCapacityIs(1);
  flow("a");
  settle();
  agent.flowStatusIs("a", FlowStatus::conflict_);
  flow("b");
  settle();
  EXPECT_THAT(published(), ElementsAre("a 11", "b 1"));
  agent.flowStatusIs("phantom", FlowStatus::programmed_);
  agent.groupStatusIs(9, GroupStatus::pending_);
  EXPECT_EQ(agent.flowsProgrammed(), 2U);
  EXPECT_EQ(agent.groupsProgrammed(), 0U);
  EXPECT_TRUE(agent.flowStatusDel("phantom"));
  EXPECT_FALSE(agent.flowStatusDel("phantom"));
  EXPECT_TRUE(agent.groupStatusDel(9));
  EXPECT_FALSE(agent.groupStatusDel(9));
  EXPECT_EQ(agent.flowsProgrammed(), 1U);
}

TEST_F(Agent, KeepsItsStatusWhileNobodyCanSeeIt) {
  flow("a");
  settle();
  agent.publishedIs(false);
  EXPECT_EQ(statuses->entityPtr("p4rt"), nullptr);
  EXPECT_THAT(published(), IsEmpty());
  flow("b");
  config->flowEntryDel("a");
  settle();
  FlowWatcher watcher{agent.status()};
  agent.publishedIs(true);
  EXPECT_EQ(statuses->entityPtr<HwStatus>("p4rt").get(), &agent.status());
  EXPECT_THAT(published(), ElementsAre("b 1"));
  EXPECT_THAT(watcher.takeLines(), ElementsAre("a 0", "a gone"));
}

TEST_F(Agent, CountsAlwaysButShowsCountersOnlyWhilePolled) {
  EXPECT_THAT(agent.units(), ElementsAre("unit0"));
  agent.countersAdd("flow-1", 1, 100);
  agent.countersAdd("flow-1", 2, 200, "unit10");
  agent.countersAdd("flow-1", 3, 300, "unit2");
  EXPECT_THAT(agent.units(), ElementsAre("unit0", "unit2", "unit10"));
  EXPECT_THAT(unit("unit10"), IsEmpty());
  config->counterPollEnableIs(true);
  EXPECT_TRUE(agent.counterPoll());
  agent.countersAdd("flow-1", 4, 400);
  EXPECT_THAT(unit("unit0"), ElementsAre("flow-1-p4rt 5 500"));
  EXPECT_THAT(unit("unit10"), ElementsAre("flow-1-p4rt 2 200"));
  config->counterPollEnableIs(false);
  EXPECT_THAT(unit("unit0"), IsEmpty());
  agent.countersAdd("flow-1", 1, 0);
  config->counterPollEnableIs(true);
  EXPECT_THAT(unit("unit0"), ElementsAre("flow-1-p4rt 6 500"));
}

TEST_F(Agent, ANewAgentTakesUpWhatIsConfigured) {
  flow("a");
  group(7);
  {
    Sim::HwAgent second{config, statuses, units};
    EXPECT_EQ(second.waiting(), 2U);
    second.run();
    EXPECT_EQ(second.flowsProgrammed(), 1U);
    flow("b");
  }
  settle();  // the work that it had put off has gone with it
  EXPECT_THAT(published(), ElementsAre("a 1", "b 1", "group 7 0"));
}

}  // namespace
