// What no command can write, rows that are damaged, shared memory that runs out, and the order in
// which flows are shown.

#include "tests/Heard.h"
#include "tests/Tampering.h"
#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;

class ServiceRows : public Switch {
 protected:
  Lines linesOf(const Sim::Announcement& announcement) {
    Lines lines = SwitchTest::linesOf(announcement.results);
    if (announcement.failure) {
      lines.insert(lines.begin(), "failure " + *announcement.failure);
    }
    return lines;
  }
};

TEST_F(ServiceRows, OutOfRangeKeepTheLibraryStoppedUntilTheyAreGone) {
  EXPECT_THAT(apply({insert({.number = 1, .vrf = 5}), insert({.number = 2, .priority = 70000})}),
              ElementsAre("insert flow 1 done 0", "insert flow 2 failed " + badPriority));
  EXPECT_THAT(linesOf(service.resync()), ElementsAre("announce flow 2 failed " + badPriority));
  service.stop();
  EXPECT_THAT(linesOf(service.start()), ElementsAre("failure " + badPriority));
  EXPECT_FALSE(service.running());
  EXPECT_THAT(linesOf(service.startBare()), ElementsAre("failure " + badPriority));
  EXPECT_THAT(vrfs(), IsEmpty());
  service.verify();
  EXPECT_THAT(apply({remove({.number = 2, .priority = 70000}), write(Op::insert_, Member{5}),
                     write(Op::insert_, Group{.id = 3, .members = {5}, .storedCount = 1025})}),
              ElementsAre("delete flow 2 stored", "insert member 5 as 3 stored",
                          "insert group 3 as 4 stored"));
  EXPECT_THAT(linesOf(service.start()),
              ElementsAre(StartsWith("failure PodArray::set expected size <= 1024")));
  apply({write(Op::modify_, Group{3, {5}})});
  EXPECT_THAT(linesOf(service.start()), IsEmpty());
  EXPECT_THAT(linesOf(service.start()), ElementsAre("failure the library is running already"));
  EXPECT_THAT(hardware(), ElementsAre("flow-1 1", "group 3 0", "group 4294967301 0"));
  EXPECT_THAT(vrfs(), ElementsAre("5: 1 users, creator 0, deletor 0"));
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(ServiceRows, WrittenAgainBeforeTheirResultHaveItAsAReport) {
  agent.automaticIs(false);
  apply({insert({.number = 1}), insert({.number = 2}), insert({.number = 3})});
  agent.automaticIs(true);
  // Of the three, one is not in the batch, one fails at once, and one is written well.
  EXPECT_THAT(apply({modify({.number = 2, .output = 0}), modify({.number = 3})}),
              ElementsAre(StartsWith("modify flow 2 done 15 "), "modify flow 3 done 0"));
  EXPECT_THAT(reports(), ElementsAre("1 code 0", "2 code 0"));
}

TEST_F(ServiceRows, PendUnderTheHandleByWhichTheLibraryKnowsTheirKey) {
  const Flow flow{.number = 1, .group = 9, .table = 3};
  apply({insert({.number = 1, .table = 3})});
  service.corvexFlowDel("flow-1");
  apply({remove(flow)});
  apply({insert(flow)});  // refused, so the key is still that of the first
  service.corvexFlowIs("flow-1");
  agent.automaticIs(false);
  apply({remove(flow)});
  const auto pending = service.pending();
  ASSERT_EQ(pending.size(), 1U);
  EXPECT_EQ(pending[0].handle, 1U);
  EXPECT_EQ(pending[0].table, 3U);
}

TEST_F(ServiceRows, OfFlowsAreShownInTheOrderOfTheirNumbers) {
  const Lines expected{"acl2",  "flow-9", "flow-010", "flow-10", "flow-100000000000000000000000",
                       "alpha", "zebra"};
  for (auto name = expected.rbegin(); name != expected.rend(); ++name) {
    service.corvexFlowIs(*name);
  }
  EXPECT_EQ(flows(), expected);
}

TEST_F(ServiceRows, ThatAreDamagedAreReportedUntilTheyAreWritten) {
  apply({insert({.number = 1}), insert({.number = 2})});
  EXPECT_TRUE(service.rowDamaged(1) && service.rowDamaged(2));
  EXPECT_FALSE(service.rowDamaged(1));
  EXPECT_FALSE(service.storedFlow(1).has_value());
  EXPECT_EQ(service.explain(0, rowOf({.number = 1}))->entryId, 1U);
  EXPECT_THAT(apply({insert({.number = 1}), modify({.number = 2, .vrf = 5})}),
              ElementsAre(HasSubstr("under handle 1"), "modify flow 2 done 0"));
  EXPECT_THAT(service.takeFaults(), ElementsAre(HasSubstr("row 0"), HasSubstr("row 1")));
  service.stop();
  EXPECT_EQ(service.start().failure, std::nullopt);
  EXPECT_THAT(service.takeFaults(), ElementsAre(HasSubstr("row 0")));
  apply({modify({.number = 1})});
}

TEST_F(ServiceRows, AreRejectedWhenTheyNeedMoreSharedMemoryThanThereIs) {
  std::vector<Update> batch;
  for (std::uint32_t number = 0; number < 400; ++number) {
    batch.push_back(insert({.number = number, .vrf = 5}));
  }
  std::size_t stored = 0;
  {
    const Limit limit{RLIMIT_FSIZE, 100000};
    const auto results = service.apply(batch);
    while (stored < results.size() && results[stored].succeeded()) {
      ++stored;
    }
    ASSERT_GT(stored, 10U);
    ASSERT_LT(stored, results.size());
    for (std::size_t at = stored; at < results.size(); ++at) {
      ASSERT_EQ(results[at].state, Sim::State::rejected_) << at;
      EXPECT_THAT(results[at].message, HasSubstr("grow shared memory"));
      EXPECT_EQ(results[at].handle, 0U);
    }
    // What needs no more goes on.
    EXPECT_THAT(apply({modify({.number = 0}), remove({.number = 1})}),
                ElementsAre("modify flow 1 done 0", "delete flow 2 done 0"));
    service.verify();
  }
  EXPECT_THAT(vrfs(),
              ElementsAre("5: " + std::to_string(stored - 2) + " users, creator 0, deletor 0"));
  for (const Sim::Result& result : service.apply(std::span{batch}.subspan(stored))) {
    EXPECT_TRUE(result.succeeded());
  }
  EXPECT_EQ(flows().size(), batch.size() - 1);
}

// The hardware agent on a Corvex configuration that nobody but the test changes.

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
