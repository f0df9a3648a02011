// Hardware that is late, full or broken: what a Write answers, and what it leaves behind.
#include "EngineFixture.h"
#include "tests/Tampering.h"

namespace P4rtTest {
namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupStatus;

class HardwareTest : public Programmed {
 protected:
  // How often the hardware must run until the request is answered.
  int roundsOf(const WriteCall& call) {
    int rounds = 0;
    for (; !call->done && rounds < 100; ++rounds) {
      runHardware();
    }
    return rounds;
  }
  // The name of the flow that was written last.
  [[nodiscard]] Korm::Name lastFlow() const { return *service->flows().back().name; }
};

TEST_F(HardwareTest, AWriteWaitsForTheAnswersToEachKindInTurn) {
  agent->automaticIs(false);
  const WriteCall call =
      begin({insert(member(1)), insert(member(2)), insert(group(1, {{1, 1}, {2, 1}})),
             insert(route(1, "action_profile_group_id: 1")), insert(acl(1, drop()))});
  bool after = false;
  engine->afterAccepted([&after] { after = true; });
  EXPECT_EQ(roundsOf(call), 3);
  EXPECT_TRUE(call->status.ok() && after);

  // Modifications and deletions are waited for as well.
  const WriteCall second = begin({modify(acl(1, forward(1))), modify(member(2, nexthop(9, 2))),
                                  modify(group(1, {{2, 1}})), remove(acl(1)), remove(route(1, "")),
                                  remove(group(1, {})), remove(member(1))});
  EXPECT_EQ(roundsOf(second), 6);
  EXPECT_TRUE(second->status.ok() && timers.idle());
}

TEST_F(HardwareTest, EachRequestHasItsTimeAndWaitsForThoseBeforeIt) {
  expectTaken({insert(acl(3, drop()))});
  agent->automaticIs(false);
  const WriteCall first = begin({insert(acl(1, drop()))});
  const WriteCall second = begin({remove(acl(1)), insert(acl(2, drop())), remove(acl(3))});
  const auto third = parse<p4::v1::ReadRequest>("entities { table_entry {} }");
  int read = 0;
  engine->read(
      third, [&read](const p4::v1::ReadResponse& response) { read += response.entities_size(); },
      [&read](const P4rt::RpcStatus&) { read += 10; });
  timers.pass(4999);
  EXPECT_FALSE(first->done);
  timers.pass(1);
  EXPECT_THAT(wordsOf(first->status), ElementsAre("DEADLINE_EXCEEDED"));
  EXPECT_FALSE(second->done);
  timers.pass(4999);
  EXPECT_FALSE(second->done);
  EXPECT_EQ(read, 0);
  timers.pass(1);
  EXPECT_THAT(wordsOf(second->status),
              ElementsAre("NOT_FOUND", "DEADLINE_EXCEEDED", "DEADLINE_EXCEEDED"));
  EXPECT_EQ(read, 11) << "the third entry, which is there again";
}

TEST_F(HardwareTest, WhatSharedMemoryHasNoRoomForFailsAndLeavesNothing) {
  std::vector<Update> updates;
  for (int number = 1; number <= 400; ++number) {
    updates.push_back(insert(acl(number, drop())));
  }
  const Limit limit{RLIMIT_FSIZE, 128 * 1024};
  const WriteCall whole = begin(updates, WriteRequest::ROLLBACK_ON_ERROR);
  runHardware();
  ASSERT_TRUE(whole->done);
  EXPECT_THAT(wordsOf(whole->status), testing::Contains("RESOURCE_EXHAUSTED"));
  EXPECT_THAT(everything(), IsEmpty());
  engine->verify();
  const WriteCall each = begin(updates);
  runHardware();
  const Texts words = wordsOf(each->status);
  const auto taken = static_cast<std::size_t>(std::count(words.begin(), words.end(), "OK"));
  EXPECT_GT(taken, 0U);
  EXPECT_EQ(std::count(words.begin(), words.end(), "RESOURCE_EXHAUSTED"),
            std::ssize(updates) - static_cast<std::ptrdiff_t>(taken));
  EXPECT_EQ(everything().size(), taken);
  engine->verify();
}

TEST_F(HardwareTest, WhatHasNoRoomAnyMoreIsNotRestored) {
  // The hardware runs so often to apply the updates. Then it has no room for one more entry, nor to
  // restore what was deleted.
  const auto rollBack = [this](const std::vector<Update>& done, int rounds) {
    agent->automaticIs(false);
    std::vector<Update> updates = done;
    updates.push_back(insert(acl(2, drop())));
    const WriteCall call = begin(updates, WriteRequest::ROLLBACK_ON_ERROR);
    for (int round = 0; round < rounds; ++round) {
      runHardware();
    }
    agent->flowCapacityIs(0);
    agent->groupCapacityIs(0);
    agent->automaticIs(true);
    runHardware();
    EXPECT_TRUE(call->done);
    Texts expected(done.size(), "ABORTED");
    expected.push_back("RESOURCE_EXHAUSTED/1");
    EXPECT_EQ(wordsOf(call->status), expected);
    EXPECT_THAT(call->status.details[done.size() - 1].message(), HasSubstr("refused to restore"));
    engine->verify();
    agent->flowCapacityIs(std::nullopt);
    agent->groupCapacityIs(std::nullopt);
  };
  expectTaken({insert(route(1, oneShot({{nexthop(), 1}})))});
  rollBack({remove(route(1, ""))}, 3);
  EXPECT_THAT(everything(), IsEmpty());
  EXPECT_THAT(service->groups(), IsEmpty());
  // Nor is what an earlier update of the same Write has made.
  rollBack({insert(acl(1, drop())), remove(acl(1))}, 2);
  expectTaken({insert(acl(1, drop()))});
  rollBack({modify(acl(1, forward(1))), remove(acl(1))}, 2);
  EXPECT_THAT(everything(), IsEmpty());
  // A member is restored in any case, because other entities may use it.
  expectTaken({insert(acl(1, does(4, {"\\007"}))), insert(member(1))});
  rollBack({remove(member(1)), remove(acl(1))}, 2);
  EXPECT_THAT(everything(), ElementsAre(shown(member(1))));
}

TEST_F(HardwareTest, WhatWasDeletedIsRestoredOnHardwareThatIsLate) {
  const auto rollBack = [this](const std::vector<Update>& there, std::vector<Update> updates) {
    expectTaken(there);
    const Texts before = everything();
    agent->automaticIs(false);
    updates.push_back(remove(acl(99)));
    const WriteCall call = begin(updates, WriteRequest::ROLLBACK_ON_ERROR);
    for (int round = 0; round < 30 && !call->done; ++round) {
      runHardware();
    }
    Texts expected(updates.size() - 1, "ABORTED");
    expected.push_back("NOT_FOUND");
    EXPECT_EQ(wordsOf(call->status), expected);
    EXPECT_EQ(everything(), before);
    agent->automaticIs(true);
    runHardware();
  };
  const std::string oneShots = route(1, oneShot({{nexthop(), 1}}));
  rollBack({insert(oneShots)}, {remove(oneShots), insert(oneShots), remove(oneShots)});
  expectTaken({remove(oneShots)});
  const std::string user = route(1, "action_profile_group_id: 1");
  rollBack({insert(member(1)), insert(group(1, {{1, 1}})), insert(user)},
           {remove(user), remove(group(1, {})), remove(member(1)), insert(member(1))});
}

TEST_F(HardwareTest, AnUpdateSucceedsOnceItIsWrittenEvenIfItsFormerOneShotIsNotGoneInTime) {
  expectTaken({insert(route(1, oneShot({{nexthop(), 1}})))});
  agent->automaticIs(false);
  const WriteCall call = begin({modify(route(1, oneShot({{nexthop(), 2}})))});
  for (int round = 0; round < 3; ++round) {  // the members, the group and the entry
    runHardware();
  }
  EXPECT_FALSE(call->done);
  timers.pass(5000);
  EXPECT_THAT(wordsOf(call->status), ElementsAre("OK"));
}

using Statuses = std::vector<std::pair<std::uint32_t, std::string>>;

TEST_F(HardwareTest, EachStatusHasItsCode) {
  agent->automaticIs(false);
  // The outcome of an insert when the hardware publishes two statuses, of which the first is not
  // final.
  const auto outcomeOf = [this](const std::string& entity, auto say, std::uint32_t first,
                                std::uint32_t second) {
    const WriteCall call = begin({insert(entity)});
    say(first);
    timers.pass(0);
    EXPECT_FALSE(call->done);
    say(second);
    timers.pass(0);
    EXPECT_TRUE(call->done);
    runHardware();
    engine->verify();
    const WriteCall gone = begin({remove(entity)});
    runHardware();
    EXPECT_THAT(wordsOf(gone->status), ElementsAre(call->status.ok() ? "OK" : "NOT_FOUND"));
    return wordsOf(call->status).front();
  };
  const auto ofFlow = [this](std::uint32_t status) {
    agent->flowStatusIs(lastFlow(), FlowStatus{status});
  };
  for (const auto& [status, outcome] : Statuses{{1, "OK"},
                                                {2, "OK"},
                                                {5, "UNIMPLEMENTED/7"},
                                                {6, "UNIMPLEMENTED/6"},
                                                {7, "RESOURCE_EXHAUSTED/1"},
                                                {9, "INTERNAL/19"},
                                                {12, "UNIMPLEMENTED/6"},
                                                {4000000000, "INTERNAL/19"}}) {
    EXPECT_EQ(outcomeOf(acl(1, does(4, {"\\007"})), ofFlow, 3, status), outcome);
    EXPECT_TRUE(service->vrfs().empty());
  }
  const auto ofMember = [this](std::uint32_t status) {
    agent->groupStatusIs((1ULL << 32U) + 1, GroupStatus{status});
  };
  for (const auto& [status, outcome] : Statuses{{0, "OK"},
                                                {2, "UNIMPLEMENTED/6"},
                                                {3, "RESOURCE_EXHAUSTED/1"},
                                                {4, "INTERNAL/19"},
                                                {5, "INTERNAL/19"}}) {
    EXPECT_EQ(outcomeOf(member(1), ofMember, 1, status), outcome);
  }
}

TEST_F(HardwareTest, AnAnswerToWhatWasThereBeforeIsNone) {
  expectTaken({insert(member(1))});
  agent->automaticIs(false);
  for (const Update& change : {modify(member(1, nexthop(9, 2))), remove(member(1))}) {
    const WriteCall call = begin({change});
    agent->publishedIs(false);
    timers.pass(0);
    EXPECT_FALSE(call->done);
    runHardware();
    EXPECT_FALSE(call->done);
    agent->publishedIs(true);
    timers.pass(0);
    EXPECT_TRUE(call->done && call->status.ok());
  }
}

TEST_F(HardwareTest, AStoppedSwitchIsUnavailableAndLosesNothing) {
  expectTaken({insert(member(1)), insert(acl(1, does(4, {"\\005"}))),
               insert(acl(2, does(5, {"\\005", "\\001"})))});
  const Texts before = everything();
  agent->automaticIs(false);
  const WriteCall under = begin({insert(acl(3, drop()))});
  service->stop();
  timers.pass(5000);
  EXPECT_THAT(wordsOf(under->status), ElementsAre("DEADLINE_EXCEEDED"));
  EXPECT_THAT(
      write({insert(acl(3, drop())), modify(acl(1, drop())), remove(acl(2)), insert(member(2)),
             remove(member(1))}),
      ElementsAre("UNAVAILABLE", "UNAVAILABLE", "UNAVAILABLE", "UNAVAILABLE", "UNAVAILABLE"));
  EXPECT_EQ(everything(), before);
  agent->automaticIs(true);
  EXPECT_EQ(service->start().failure, std::nullopt);
  engine->verify();
  expectTaken({modify(acl(1, drop())), remove(acl(2)), remove(member(1))});
}

TEST_F(HardwareTest, ShuttingDownFinishesWhatIsUnderWay) {
  agent->automaticIs(false);
  const WriteCall under = begin({insert(acl(1, drop()))});
  const WriteCall behind = begin({insert(acl(2, drop()))});
  bool down = false;
  engine->shutDown([&down] { down = true; });
  const WriteCall late = begin({insert(acl(3, drop()))});
  EXPECT_FALSE(under->done || behind->done || down);
  runHardware();
  EXPECT_TRUE(under->done && behind->done && late->done && down);
  EXPECT_TRUE(under->status.ok());
  EXPECT_THAT(wordsOf(behind->status), ElementsAre("UNAVAILABLE"));
  EXPECT_THAT(wordsOf(late->status), ElementsAre("UNAVAILABLE"));
  EXPECT_EQ(service->flows().size(), 1U);
}

TEST_F(HardwareTest, CountersAreReadAndNeverWritten) {
  expectTaken({insert(acl(1, drop() + "counter_data {}")), insert(acl(2, drop()))});
  agent->countersAdd(lastFlow(), 3, 400);
  const std::string counted = "counter_data { byte_count: 400 packet_count: 3 }";
  EXPECT_THAT(read({"table_entry { table_id: 0x02000001 counter_data {} }"}).entities,
              testing::UnorderedElementsAre(shown(acl(1, drop() + "counter_data {}")),
                                            shown(acl(2, drop() + counted))));
  EXPECT_THAT(read({acl(2)}).entities, ElementsAre(shown(acl(2, drop()))));
  // A modification leaves the counter alone.
  expectTaken({modify(acl(2, forward(1)))});
  EXPECT_THAT(read({"direct_counter_entry { " + acl(2) + " }"}).entities,
              ElementsAre(shown("direct_counter_entry { " + acl(2) +
                                " data { byte_count: 400 packet_count: 3 } }")));
}

}  // namespace
}  // namespace P4rtTest
