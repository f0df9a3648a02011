// A controller's writes, and what comes of them.
#include <gtest/gtest.h>

#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;

class ServiceWrite : public Switch {};

TEST_F(ServiceWrite, OneBatchMayWriteAGroupAndItsMembersManyTimes) {
  EXPECT_THAT(apply({write(Op::insert_, Member{5}), write(Op::insert_, Group{3, {5}}),
                     write(Op::delete_, Group{3, {}}), write(Op::insert_, Group{3, {6}}),
                     write(Op::insert_, Member{6}), write(Op::modify_, Group{3, {6, 5}})}),
              ElementsAre("insert member 5 as 1 done 0", "insert group 3 as 2 done 0",
                          "delete group 3 as 2 done 0",
                          "insert group 3 as 3 done 15 Action profile group: 3 member 6 not found",
                          "insert member 6 as 4 done 0", "modify group 3 as 3 done 0"));
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(ServiceWrite, ARangeExceptionFailsItsUpdateAndTheServiceGoesOn) {
  EXPECT_THAT(
      apply({insert({.number = 1, .priority = 70000}),
             insert({.number = 2, .vrf = 5, .cpuTrafficClass = 17}),
             insert({.number = 3, .vrf = 5}), write(Op::insert_, Member{5}),
             write(Op::insert_, Group{.id = 3, .members = {5}, .storedCount = 1025}),
             insert({.number = 4})}),
      ElementsAre("insert flow 1 failed " + badPriority, "insert flow 2 failed " + badTrafficClass,
                  "insert flow 3 done 0", "insert member 5 as 4 done 0",
                  testing::StartsWith("insert group 3 as 5 failed PodArray::set expected size <= "
                                      "1024, instead got 1025."),
                  "insert flow 6 done 0"));
  EXPECT_THAT(vrfs(), ElementsAre("5: 2 users, creator 0, deletor 0", "2 waits for 5"));
  EXPECT_THAT(entries(), ElementsAre("table 0: 1 indexed", "table 0: 2 vrf 5",
                                     "table 0: 3 indexed vrf 5", "table 0: 6 indexed"));
  // The one key is mapped, to a flow that is not there, the other is not.
  EXPECT_THAT(
      apply({remove({.number = 1, .priority = 70000}), remove({.number = 2}),
             write(Op::modify_, Group{3, {5}})}),
      ElementsAre("delete flow 1 done 0", "delete flow 2 done 0", "modify group 3 as 5 done 0"));
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(ServiceWrite, ADeleteMayBeAcknowledgedUnderAnotherHandle) {
  // Never translated: under handle 0.
  apply({insert({.number = 1, .output = 0})});
  EXPECT_THAT(apply({remove({.number = 1})}), ElementsAre("delete flow 1 done 0"));
  // The key stays mapped to a flow that has vanished, and is then acknowledged under its handle.
  apply({insert({.number = 2, .vrf = 5})});
  EXPECT_TRUE(service.corvexFlowDel("flow-2"));
  EXPECT_THAT(reports(), ElementsAre("2 code 0"));
  EXPECT_THAT(apply({remove({.number = 2})}), ElementsAre("delete flow 2 done 0"));
  EXPECT_THAT(apply({insert({.number = 2, .output = 0}), remove({.number = 2})}),
              ElementsAre("insert flow 3 done 15 " + badPort, "delete flow 3 done 0"));
  EXPECT_THAT(reports(), IsEmpty());
  // If that flow is there again, a delete takes it down, and its VRF with it.
  service.corvexFlowIs("flow-2");
  reports();
  apply({insert({.number = 2, .output = 0})});
  EXPECT_THAT(apply({remove({.number = 2})}), ElementsAre("delete flow 4 done 0"));
  EXPECT_THAT(flows(), IsEmpty());
  EXPECT_THAT(vrfs(), IsEmpty());
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(ServiceWrite, MembersAndGroupsSucceedUnlessAnErrorIsRecordedByTheTimeTheHardwareIsIdle) {
  agent.groupCapacityIs(2);
  EXPECT_THAT(
      apply({write(Op::insert_, Member{5}), write(Op::insert_, Member{6}),
             write(Op::insert_, Group{3, {5, 6}}), write(Op::modify_, Group{3, {6}}),
             write(Op::insert_, Member{7, 0}), write(Op::insert_, Member{8, 1, 77})}),
      ElementsAre("insert member 5 as 1 done 0", "insert member 6 as 2 done 0",
                  "insert group 3 as 3 done 1 Hardware resource exhausted for profile group 3",
                  "modify group 3 as 3 done 1 Hardware resource exhausted for profile group 3",
                  "insert member 7 as 4 done 15 Action profile member 7: port id 0 is outside 1 "
                  "to 4294967039",
                  "insert member 8 as 5 done 15 Action profile member: 8 has invalid encapId: 77"));
  agent.groupCapacityIs(std::nullopt);
  EXPECT_THAT(apply({write(Op::modify_, Group{3, {7}}), write(Op::modify_, Group{3, {5}})}),
              ElementsAre("modify group 3 as 3 done 15 Action profile group: 3 member 7 not found",
                          "modify group 3 as 3 done 0"));
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(ServiceWrite, AnErrorOfAnotherRowIsThatRowsResultOrAReport) {
  apply({write(Op::insert_, Member{5}), write(Op::insert_, Member{6})});
  apply({write(Op::insert_, Group{3, {5, 6}})});
  const std::string missing = "15 Action profile group: 3 member 6 not found";
  // Rewriting member 5 rebuilds the group, which has lost member 6.
  EXPECT_THAT(apply({write(Op::delete_, Member{6}), write(Op::modify_, Member{5})}),
              ElementsAre("delete member 6 as 2 done 0", "modify member 5 as 1 done 0"));
  EXPECT_THAT(reports(), ElementsAre("3 code " + missing));
  apply({write(Op::insert_, Member{6})});
  EXPECT_THAT(apply({write(Op::modify_, Group{3, {6, 5}}), write(Op::delete_, Member{6}),
                     write(Op::modify_, Member{5})}),
              ElementsAre("modify group 3 as 3 done " + missing, "delete member 6 as 4 done 0",
                          "modify member 5 as 1 done 0"));
  EXPECT_THAT(reports(), IsEmpty());
  // An encapsulation entry is no write: all that comes of it is a report.
  EXPECT_EQ(service.encapDel(9), std::nullopt);
  EXPECT_THAT(reports(), ElementsAre("1 code 15 Action profile member: 5 has invalid encapId: 9"));
}

TEST_F(ServiceWrite, WhatTheHardwareHasNotReportedIsPendingAndComesAsAReport) {
  agent.automaticIs(false);
  EXPECT_THAT(apply({insert({.number = 1}), insert({.number = 2, .output = 0}),
                     insert({.number = 3, .vrf = 5}), write(Op::insert_, Member{5})}),
              ElementsAre("insert flow 1 pending", "insert flow 2 done 15 " + badPort,
                          "insert flow 3 pending", "insert member 5 as 4 done 0"));
  EXPECT_THAT(vrfs(), ElementsAre("5: 1 users, creator 3, deletor 0", "3 waits for 5"));
  // A later write of the row does not answer the earlier one, whether it fails or waits with it.
  EXPECT_THAT(apply({modify({.number = 1, .output = 0})}),
              ElementsAre("modify flow 1 done 15 " + badPort));
  EXPECT_THAT(apply({modify({.number = 3, .vrf = 5})}), ElementsAre("modify flow 3 pending"));
  EXPECT_THAT(reports(), IsEmpty());
  agent.run();
  EXPECT_THAT(reports(), ElementsAre("1 code 0", "3 code 0"));
  EXPECT_THAT(vrfs(), ElementsAre("5: 1 users, creator 0, deletor 0"));
  EXPECT_THAT(apply({remove({.number = 3}), remove({.number = 2})}),
              ElementsAre("delete flow 3 pending", "delete flow 2 done 0"));
  EXPECT_THAT(vrfs(), ElementsAre("5: 0 users, creator 0, deletor 3", "3 waits for 5"));
  agent.run();
  EXPECT_THAT(reports(), ElementsAre("3 code 0"));
  EXPECT_THAT(vrfs(), IsEmpty());
}

TEST_F(ServiceWrite, AResultThatComesDuringALaterBatchIsItsOwnReport) {
  agent.automaticIs(false);
  apply({insert({.number = 1}), insert({.number = 2}), insert({.number = 3})});
  agent.automaticIs(true);
  // Of the three, one is not in the batch, one fails at once, and one is written well.
  EXPECT_THAT(apply({modify({.number = 2, .output = 0}), modify({.number = 3})}),
              ElementsAre("modify flow 2 done 15 " + badPort, "modify flow 3 done 0"));
  EXPECT_THAT(reports(), ElementsAre("1 code 0", "2 code 0"));
}

}  // namespace
