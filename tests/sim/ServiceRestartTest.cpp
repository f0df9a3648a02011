// The library's life: creation, destruction, and the announcement of what is stored.
#include <gtest/gtest.h>

#include "tests/sim/SwitchFixture.h"

namespace {

using namespace SwitchTest;

class ServiceRestart : public Switch {
 protected:
  Lines linesOf(const Sim::Announcement& announcement) {
    Lines lines = SwitchTest::linesOf(announcement.results);
    if (announcement.failure) {
      lines.insert(lines.begin(), "failure " + *announcement.failure);
    }
    return lines;
  }
};

TEST_F(ServiceRestart, WithoutTheAnnouncementOnlyTheLastTablesFlowsComeBack) {
  apply({insert({.number = 1}), insert({.number = 2, .table = 14}), insert({.number = 3})});
  apply({modify({.number = 3, .output = 0})});
  service.stop();
  // The flow of a row that is refused goes too, but its withdrawal does not make it a success.
  EXPECT_THAT(linesOf(service.startBare()), ElementsAre("announce flow 3 done 15 " + badPort));
  EXPECT_THAT(flows(), ElementsAre("flow-2"));
  EXPECT_THAT(entries(), ElementsAre("table 0: 1 indexed", "table 0: 3", "table 14: 2 indexed"));
  EXPECT_THAT(linesOf(service.resync()), ElementsAre("announce flow 3 done 15 " + badPort));
  EXPECT_THAT(flows(), ElementsAre("flow-1", "flow-2"));
  EXPECT_THAT(hardware(), ElementsAre("flow-1 1", "flow-2 1"));
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(ServiceRestart, WhatIsWrittenWhileTheLibraryIsStoppedIsStored) {
  apply({insert({.number = 1}), insert({.number = 2}), write(Op::insert_, Member{4})});
  service.stop();
  EXPECT_THAT(
      apply({insert({.number = 3}), modify({.number = 1, .output = 0}), remove({.number = 2}),
             insert({.number = 2}), insert({.number = 3}), write(Op::insert_, Member{5}),
             write(Op::insert_, Group{3, {5}}), write(Op::delete_, Member{4}),
             insert({.number = 4, .group = 3})}),
      ElementsAre("insert flow 4 stored", "modify flow 1 stored", "delete flow 2 stored",
                  "insert flow 5 stored",
                  "insert flow rejected a flow with this key is already stored, under handle 4",
                  "insert member 5 as 6 stored", "insert group 3 as 7 stored",
                  "delete member 4 as 3 stored", "insert flow 8 stored"));
  EXPECT_THAT(linesOf(service.resync()), ElementsAre("failure the library is stopped"));
  // The hardware has not reported the group by the time of the announcement.
  EXPECT_THAT(linesOf(service.start()),
              ElementsAre("announce flow 1 done 15 " + badPort,
                          "announce flow 8 done 16 Group id: 3 is not found"));
  EXPECT_THAT(flows(), ElementsAre("flow-4", "flow-5"));
  // The hardware still held the flow that was deleted, and says what becomes of it.
  EXPECT_THAT(reports(), ElementsAre("2 code 0"));
  EXPECT_THAT(linesOf(service.resync()), ElementsAre("announce flow 1 done 15 " + badPort));
  EXPECT_THAT(flows(), ElementsAre("flow-4", "flow-5", "flow-8"));
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(ServiceRestart, ARowOutOfRangeKeepsTheLibraryStoppedUntilItIsGone) {
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
              ElementsAre(testing::StartsWith("failure PodArray::set expected size <= 1024")));
  apply({write(Op::modify_, Group{3, {5}})});
  EXPECT_THAT(linesOf(service.start()), IsEmpty());
  EXPECT_THAT(linesOf(service.start()), ElementsAre("failure the library is running already"));
  EXPECT_THAT(hardware(), ElementsAre("flow-1 1", "group 3 0", "group 4294967301 0"));
  EXPECT_THAT(vrfs(), ElementsAre("5: 1 users, creator 0, deletor 0"));
  EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(ServiceRestart, AnAnnouncementShowsHowEachRowEnds) {
  agent.flowCapacityIs(1);
  agent.groupCapacityIs(1);
  apply({insert({.number = 1}), insert({.number = 2}), write(Op::insert_, Member{5}),
         write(Op::insert_, Member{6})});
  const Lines full{"announce member 6 as 4 done 1 Hardware resource exhausted for profile member 6",
                   "announce flow 2 done 1"};
  EXPECT_EQ(linesOf(service.resync()), full);
  service.stop();
  EXPECT_EQ(linesOf(service.start()), full);
  // What the hardware said before the announcement does not count, only what it says of it.
  service.stop();
  agent.flowCapacityIs(std::nullopt);
  agent.groupCapacityIs(std::nullopt);
  EXPECT_THAT(linesOf(service.start()), IsEmpty());
  agent.automaticIs(false);
  EXPECT_THAT(linesOf(service.resync()),
              ElementsAre("announce flow 1 pending", "announce flow 2 pending"));
  agent.run();
  EXPECT_THAT(reports(), ElementsAre("1 code 0", "2 code 0"));
}

TEST_F(ServiceRestart, AStopForgetsWhatWasPending) {
  agent.automaticIs(false);
  apply({insert({.number = 1, .vrf = 5}), insert({.number = 2})});
  agent.run();
  EXPECT_THAT(reports(), ElementsAre("1 code 0", "2 code 0"));
  EXPECT_THAT(apply({modify({.number = 1, .vrf = 6}), remove({.number = 2})}),
              ElementsAre("modify flow 1 pending", "delete flow 2 pending"));
  service.stop();
  EXPECT_THAT(vrfs(), IsEmpty());
  agent.run();
  EXPECT_THAT(reports(), IsEmpty());
  EXPECT_THAT(hardware(), ElementsAre("flow-1 1"));
  agent.automaticIs(true);
  EXPECT_THAT(linesOf(service.start()), IsEmpty());
  EXPECT_THAT(apply({remove({.number = 1})}), ElementsAre("delete flow 1 done 0"));
  EXPECT_THAT(reports(), IsEmpty());
}

}  // namespace
