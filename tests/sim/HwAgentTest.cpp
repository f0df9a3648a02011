// The hardware agent on a Corvex configuration that nobody but the test changes.

#include "tests/Heard.h"
#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;
using OpenFlowTable::HwStatus;
using Sim::Service;

class Agent : public Switch {
 protected:
  void flow(const Korm::Name& name) {
    config_->flowEntryIs(name, {}, {}, {}, 0, {}, 0, 0, 0, false, true);
  }
  void group(OpenFlowTable::GroupId id) {
    auto& group = config_->groupEntryIs(id);
    group.readyIs(true);
    group.changeCountIs(1);
  }
  [[nodiscard]] Lines unit(const Korm::Name& name) const {
    Lines lines;
    for (const auto& stats : service.hwUnitDir()->entityPtr<HwStatus>(name)->flowStats()) {
      lines.push_back(stats.key + " " + std::to_string(stats.value.packets()) + " " +
                      std::to_string(stats.value.bytes()));
    }
    return lines;
  }

  const Korm::Ptr<OpenFlowTable::CorvexHwConfig> config_ = service.hwConfig();
};

TEST_F(Agent, WorksWhenTheProcessIsIdleAndInTheOrderOfTheFirstChange) {
  Lines told;
  Listener<const Korm::Name&> watcher{
      agent.status().flowStatsNotifiees(), [&](const Korm::Name& name) {
        told.push_back(name + (agent.status().flowStats(name) == nullptr ? " gone" : " comes"));
      }};
  flow("b");
  group(7);
  flow("a");
  flow("b");
  flow("c");
  config_->flowEntryDel("c");
  config_->groupEntryIs(8);  // and is not ready yet
  EXPECT_THAT(hardware(), IsEmpty());
  EXPECT_EQ(agent.waiting(), 5U);
  Service::settle();
  EXPECT_THAT(hardware(), ElementsAre("a 1", "b 1", "group 7 0"));
  EXPECT_THAT(told, ElementsAre("b comes", "a comes", "c comes", "c gone"));
  config_->flowEntryDel("a");
  config_->groupEntryDel(7);
  Service::settle();
  EXPECT_THAT(hardware(), ElementsAre("b 1"));
}

TEST_F(Agent, PublishesAChangeAgainUnderANewerChangeCount) {
  std::vector<double> flowCounts;
  std::vector<double> groupCounts;
  for (int change = 0; change < 4; ++change) {
    flow("a");
    group(7);
    Service::settle();
    flowCounts.push_back(agent.status().flowStats("a")->changeCount());
    groupCounts.push_back(agent.status().groupStats(7)->changeCount());
  }
  for (const auto& counts : {flowCounts, groupCounts}) {
    EXPECT_EQ(std::adjacent_find(counts.begin(), counts.end(), std::greater_equal<>{}),
              counts.end());
  }
}

TEST_F(Agent, CountsAlwaysButShowsCountersOnlyWhilePolled) {
  config_->counterPollEnableIs(false);
  agent.countersAdd("flow-1", 1, 100);
  agent.countersAdd("flow-1", 2, 200, "unit10");
  agent.countersAdd("flow-1", 3, 300, "unit2");
  EXPECT_THAT(agent.units(), ElementsAre("unit0", "unit2", "unit10"));
  EXPECT_THAT(unit("unit10"), IsEmpty());
  config_->counterPollEnableIs(true);
  agent.countersAdd("flow-1", 4, 400);
  EXPECT_THAT(unit("unit0"), ElementsAre("flow-1-p4rt 5 500"));
  EXPECT_THAT(unit("unit10"), ElementsAre("flow-1-p4rt 2 200"));
  config_->counterPollEnableIs(false);
  EXPECT_THAT(unit("unit0"), IsEmpty());
}

TEST_F(Agent, ANewAgentTakesUpWhatIsConfigured) {
  flow("a");
  group(7);
  {
    Sim::HwAgent second{config_, service.hwStatusDir(), service.hwUnitDir()};
    EXPECT_EQ(second.waiting(), 2U);
    second.run();
    EXPECT_EQ(second.flowsProgrammed(), 1U);
    flow("b");
  }
  Service::settle();  // the work that it had put off has gone with it
  EXPECT_THAT(hardware(), ElementsAre("a 1", "b 1", "group 7 0"));
}

}  // namespace
