// Rows that are damaged or need more shared memory than there is, and the hardware agent.

#include "tests/Tampering.h"
#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;

class ServiceRows : public Switch {};

TEST_F(ServiceRows, WrittenAgainWhilePendingGetTheirFirstResultAsAReport) {
  play(
      "hw manual\ninsert flow priority=1 -> drop\ninsert flow priority=2 -> drop\n"
      "insert flow priority=3 -> drop");
  agent.automaticIs(true);
  // Of the three, one is not in the batch, one fails at once, and one is written well.
  EXPECT_THAT(
      play("begin\nmodify flow priority=2 -> output=0\nmodify flow priority=3 -> drop\ncommit"),
      AllOf(StartsWith("modify flow (entry 2): refused with code 15: "),
            EndsWith("modify flow (entry 3): done\n"
                     "report for entry 1: done\nreport for entry 2: done\n")));
}

TEST_F(ServiceRows, DamagedAreReportedUntilTheyAreWrittenAgain) {
  play("insert flow priority=1 -> drop\ninsert flow priority=2 -> drop");
  EXPECT_TRUE(service.rowDamaged(1) && service.rowDamaged(2));
  EXPECT_FALSE(service.rowDamaged(1));
  EXPECT_FALSE(service.storedFlow(1).has_value());
  EXPECT_EQ(service.explain(0, rowOf("priority=1 -> drop"))->entryId, 1U);
  EXPECT_THAT(play("insert flow priority=1 -> drop"), HasSubstr("under handle 1"));
  EXPECT_THAT(play("modify flow priority=2 -> vrf=5"),
              AllOf(StartsWith("modify flow (entry 2): done\n"), HasSubstr("row 1 is corrupt")));
  service.stop();
  EXPECT_EQ(service.start().failure, std::nullopt);
  EXPECT_EQ(service.start().failure, "the library is running already");
  EXPECT_THAT(service.takeFaults(), ElementsAre(HasSubstr("row 0")));
  play("modify flow priority=1 -> drop");
}

TEST_F(ServiceRows, AreRejectedWhenTheyNeedMoreSharedMemoryThanThereIs) {
  std::vector<Sim::Update> batch;
  for (int number = 0; number < 400; ++number) {
    batch.push_back(Sim::Update::flow(Sim::Op::insert_, 0,
                                      rowOf("priority=" + std::to_string(number) + " -> vrf=5")));
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
    EXPECT_EQ(play("modify flow priority=0 -> drop\ndelete flow priority=1"),
              "modify flow (entry 1): done\ndelete flow (entry 2): done\n");
    service.verify();
  }
  EXPECT_EQ(service.vrfs().at(0).refCount, stored - 2);
  for (const Sim::Result& result : service.apply(std::span{batch}.subspan(stored))) {
    EXPECT_TRUE(result.succeeded());
  }
  EXPECT_EQ(service.flows().size(), batch.size() - 1);
}

// The hardware agent on a Corvex configuration that nobody but the test changes.

using OpenFlowTable::HwStatus;

class Agent : public Switch {
 protected:
  void group(OpenFlowTable::GroupId id) {
    auto& group = service.hwConfig()->groupEntryIs(id);
    group.readyIs(true);
    group.changeCountIs(1);
  }
  [[nodiscard]] Texts unit(const Korm::Name& name) const {
    Texts lines;
    for (const auto& stats : service.hwUnitDir()->entityPtr<HwStatus>(name)->flowStats()) {
      lines.push_back(stats.key + " " + std::to_string(stats.value.packets()) + " " +
                      std::to_string(stats.value.bytes()));
    }
    return lines;
  }
};

TEST_F(Agent, PublishesAChangeAgainUnderANewerChangeCount) {
  double flowCount = -1;
  double groupCount = -1;
  for (int change = 0; change < 4; ++change) {
    group(7);
    play("corvex flow a");
    const auto newer = agent.status().flowStats("a")->changeCount();
    EXPECT_GT(newer, std::exchange(flowCount, newer));
    const auto newerOfGroup = agent.status().groupStats(7)->changeCount();
    EXPECT_GT(newerOfGroup, std::exchange(groupCount, newerOfGroup));
  }
}

TEST_F(Agent, CountsAlwaysButShowsCountersOnlyWhilePolled) {
  service.hwConfig()->counterPollEnableIs(false);
  play("hw count flow-1 1 100\nhw count flow-1 2 200 unit10\nhw count flow-1 3 300 unit2");
  EXPECT_THAT(agent.units(), ElementsAre("unit0", "unit2", "unit10"));
  EXPECT_THAT(unit("unit10"), IsEmpty());
  service.hwConfig()->counterPollEnableIs(true);
  play("hw count flow-1 4 400");
  EXPECT_THAT(unit("unit0"), ElementsAre("flow-1-p4rt 5 500"));
  EXPECT_THAT(unit("unit10"), ElementsAre("flow-1-p4rt 2 200"));
  service.hwConfig()->counterPollEnableIs(false);
  EXPECT_THAT(unit("unit0"), IsEmpty());
}

TEST_F(Agent, ANewAgentTakesUpWhatIsConfigured) {
  service.corvexFlowIs("a");
  group(7);
  {
    Sim::HwAgent second{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
    EXPECT_EQ(second.waiting(), 2U);
    second.run();
    EXPECT_EQ(second.flowsProgrammed(), 1U);
    service.corvexFlowIs("b");
  }
  Sim::Service::settle();  // the work that it had put off has gone with it
  EXPECT_EQ(agent.flowsProgrammed(), 2U);
  EXPECT_EQ(agent.publishedGroups().size(), 1U);
}

}  // namespace
