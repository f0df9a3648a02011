#include "FlowFixture.h"

namespace OstraTest {
namespace {

class FlowVrf : public FlowFixture {
 protected:
  FlowVrf() { start(); }

  // A write of flow `number` under the handle of that number, in this VRF.
  std::string writeIn(VrfId vrf, std::uint16_t number) {
    return write(flowInVrf(number, number, vrf));
  }
  std::string writeInNone(std::uint16_t number) { return write(flow(number, plainKey(number))); }
  std::string removeFlow(std::uint16_t number) { return remove(flow(number, plainKey(number))); }
  [[nodiscard]] VrfId vrfOf(std::uint16_t number) const { return sm->vrfId(plainKey(number)); }
};

TEST_F(FlowVrf, TheFirstUserCreatesItAndTheLastOneEndsIt) {
  writeIn(5, 1);
  EXPECT_EQ(books(5), "1 users, creator 1, deletor none");
  EXPECT_EQ(vrfOf(1), 5U);
  EXPECT_TRUE(isDependent(1));
  EXPECT_EQ(dependentVrf(1), 5U);
  EXPECT_EQ(theFlow(1).actions().vrf(), 5U);

  writeIn(5, 2);
  EXPECT_EQ(books(5), "2 users, creator 1, deletor none");
  EXPECT_FALSE(isDependent(2));
  EXPECT_EQ(dependentVrf(2), noVrf);

  removeFlow(2);
  EXPECT_EQ(books(5), "1 users, creator 1, deletor none");
  EXPECT_FALSE(isDependent(2));

  removeFlow(1);
  EXPECT_EQ(books(5), "0 users, creator 1, deletor 1");
  EXPECT_TRUE(isDependent(1));
  EXPECT_EQ(dependentVrf(1), 5U);
  EXPECT_EQ(vrfOf(1), noVrf);
}

TEST_F(FlowVrf, RewritingAFlowInItsVrfBooksNothing) {
  writeIn(5, 1);
  statusInfo->dependentHandleToVrfMapDelAll();
  Listener<const VrfId&> counts{vrfs->refCounts().notifiees()};
  TextTrace trace{5};
  writeIn(5, 1);
  for (const std::string& text : trace.take()) {
    EXPECT_EQ(text.find("handleVrfChange"), std::string::npos) << text;
  }
  EXPECT_EQ(counts.take(), 0);
  EXPECT_FALSE(isDependent(1));
  EXPECT_EQ(dependentVrf(1), noVrf);
}

TEST_F(FlowVrf, FlowsWithoutOneBookNothing) {
  Listener<const VrfId&> counts{vrfs->refCounts().notifiees()};
  writeInNone(1);
  writeInNone(1);
  removeFlow(1);
  EXPECT_EQ(counts.take(), 0);
  EXPECT_EQ(statusInfo->dependentHandleToVrfMap().size(), 0U);
}

TEST_F(FlowVrf, AMoveOfTheOnlyUserEndsTheOldOneAndRecordsTheNewOne) {
  writeIn(3, 1);
  statusInfo->dependentHandleToVrfMapDelAll();
  writeIn(4, 1);
  EXPECT_EQ(books(3), "0 users, creator 1, deletor 1");
  EXPECT_EQ(books(4), "1 users, creator 1, deletor none");
  EXPECT_EQ(vrfOf(1), 4U);
  EXPECT_TRUE(isDependent(1));
  EXPECT_EQ(dependentVrf(1), 4U);
}

TEST_F(FlowVrf, AMoveRecordsTheOneThatItEndsOrStarts) {
  writeIn(3, 1);
  writeIn(4, 2);
  writeIn(4, 3);
  writeIn(4, 1);  // ends 3, joins 4
  EXPECT_EQ(books(3), "0 users, creator 1, deletor 1");
  EXPECT_EQ(books(4), "3 users, creator 2, deletor none");
  EXPECT_EQ(dependentVrf(1), 3U);
  writeIn(6, 2);  // leaves 4, starts 6
  EXPECT_EQ(books(4), "2 users, creator 2, deletor none");
  EXPECT_EQ(books(6), "1 users, creator 2, deletor none");
  EXPECT_EQ(dependentVrf(2), 6U);
  writeIn(4, 2);  // ends 6
  writeIn(6, 4);  // starts 6 anew, under the creator that is recorded
  statusInfo->dependentHandleToVrfMapDelAll();
  writeIn(6, 3);  // leaves 4, joins 6: neither first nor last
  EXPECT_EQ(books(6), "2 users, creator 2, deletor 2");
  EXPECT_FALSE(isDependent(3));
  EXPECT_EQ(dependentVrf(3), noVrf);
}

TEST_F(FlowVrf, RewritingWithoutAVrfLeavesIt) {
  writeIn(5, 1);
  writeInNone(1);
  EXPECT_EQ(books(5), "0 users, creator 1, deletor 1");
  EXPECT_EQ(vrfOf(1), noVrf);
  EXPECT_EQ(dependentVrf(1), 5U);
  EXPECT_EQ(sm->flowKeyToEntryHandle(plainKey(1)), 1U);
  EXPECT_FALSE(theFlow(1).actions().has(OpenFlowTable::Action::vrf_));
  EXPECT_EQ(removeFlow(1), "");
  EXPECT_EQ(books(5), "0 users, creator 1, deletor 1");
  sm->verify();
}

TEST_F(FlowVrf, CreatorAndDeletorAreRecordedOnceUntilTheServiceForgetsThem) {
  writeIn(5, 1);
  removeFlow(1);
  writeIn(5, 2);
  EXPECT_EQ(books(5), "1 users, creator 1, deletor 1") << "a creator is recorded still";
  EXPECT_FALSE(isDependent(2));
  EXPECT_EQ(dependentVrf(2), noVrf);
  removeFlow(2);
  EXPECT_EQ(books(5), "0 users, creator 1, deletor 1");
  EXPECT_FALSE(isDependent(2));

  vrfs->vrfCreatorRootHandleDel(5);
  writeIn(5, 3);
  EXPECT_EQ(books(5), "1 users, creator 3, deletor 1") << "a count of 0 is as good as none";
  EXPECT_TRUE(isDependent(3));
  vrfs->vrfDeletorRootHandleDel(5);
  removeFlow(3);
  EXPECT_EQ(books(5), "0 users, creator 3, deletor 3");
}

TEST_F(FlowVrf, OnlyTheBooksOfThePlatformDecideWhoIsLast) {
  writeIn(5, 1);
  vrfs->vrfIdRefCountInc(5, 1);  // another table's flow
  removeFlow(1);
  EXPECT_EQ(books(5), "1 users, creator 1, deletor none");
  writeIn(6, 2);
  vrfs->vrfIdRefCountDel(6);
  removeFlow(2);
  EXPECT_EQ(books(6), "0 users, creator 2, deletor none") << "no count, so not the last";
}

TEST_F(FlowVrf, OfAnyNumberIsBookedUnderThatNumber) {
  writeIn(0, 1);
  EXPECT_EQ(books(0), "1 users, creator 1, deletor none");
  EXPECT_EQ(dependentVrf(1), 0U);
  writeIn(0xFFFFFFFF, 2);
  EXPECT_EQ(books(0xFFFFFFFF), "1 users, creator 2, deletor none");
  EXPECT_EQ(vrfOf(2), 0xFFFFFFFFU);
  writeIn(noVrf, 3);
  EXPECT_EQ(books(noVrf), "1 users, creator 3, deletor none");
  EXPECT_FALSE(statusInfo->dependentHandleToVrfMap(3).has_value()) << "none stands for no VRF";
  removeFlow(3);
  EXPECT_EQ(books(noVrf), "0 users, creator 3, deletor 3");
}

TEST_F(FlowVrf, IsBookedOutsideABatchTooWithNothingToHoldBack) {
  table->entryIs(flowInVrf(7, 1, 5));
  EXPECT_EQ(books(5), "1 users, creator 7, deletor none");
  EXPECT_FALSE(isDependent(7));
  EXPECT_NE(cxFlow(7), nullptr);
}

TEST_F(FlowVrf, ChangesAreTraced) {
  const auto changes = [](TextTrace& trace) {
    Texts texts;
    for (std::string& text : trace.take()) {
      constexpr std::string_view prefix = "5 OstraSm::handleVrfChange";
      if (text.starts_with(prefix)) {
        texts.push_back(text.substr(prefix.size()));
      }
    }
    return texts;
  };
  TextTrace trace{5};
  writeIn(3, 1);
  EXPECT_EQ(changes(trace),
            (Texts{" add vrf 3 refCount 1", " adding rootStatus, entryVrf:3 entryHandle:1"}));
  writeIn(3, 2);
  EXPECT_EQ(changes(trace), Texts{" add vrf 3 refCount 2"});
  writeIn(4, 2);
  EXPECT_EQ(changes(trace), (Texts{" del vrf 3 refCount 1", " add vrf 4 refCount 1",
                                   " adding rootStatus, entryVrf:4 entryHandle:2"}));
  writeIn(3, 2);
  EXPECT_EQ(changes(trace), (Texts{" del vrf 4 refCount 0", " add vrf 3 refCount 2",
                                   " adding rootStatus, entryVrf:4 entryHandle:2"}));
  removeFlow(2);
  EXPECT_EQ(changes(trace), Texts{" del vrf 3 refCount 1"});
}

TEST_F(FlowVrf, IndexesAnswerForKeysThatTheyDoNotHold) {
  const OstraKey key = plainKey(1);
  EXPECT_EQ(sm->vrfId(key), 16777215U);
  EXPECT_EQ(sm->vrfIdDel(key), 16777215U);
  EXPECT_EQ(sm->flowKeyToEntryHandleDel(key), 0U);
  EXPECT_FALSE(sm->flowKeyToEntryHandle(key).has_value());
}

TEST_F(FlowVrf, IndexesKeepVrfAndHandleApart) {
  for (std::uint16_t number = 1; number <= 100; ++number) {
    sm->vrfIdIs(plainKey(number), number);
    sm->vrfIdIs(plainKey(number), number + 1U);
    sm->flowKeyToEntryHandleIs(plainKey(number), number);
    sm->flowKeyToEntryHandleIs(plainKey(number), number + 2U);
  }
  sm->verify();
  EXPECT_EQ(sm->vrfIdDel(plainKey(7)), 8U);
  EXPECT_EQ(sm->flowKeyToEntryHandle(plainKey(7)), 9U);
  EXPECT_EQ(sm->flowKeyToEntryHandleDel(plainKey(8)), 10U);
  EXPECT_EQ(sm->vrfId(plainKey(8)), 9U);
  sm->vrfIdDelAll();
  sm->verify();
  EXPECT_EQ(sm->vrfId(plainKey(50)), noVrf);
  EXPECT_EQ(sm->flowKeyToEntryHandle(plainKey(50)), 52U);
  sm->vrfIdIs(plainKey(1), 3);
  sm->flowKeyToEntryHandleDelAll();
  sm->verify();
  EXPECT_FALSE(sm->flowKeyToEntryHandle(plainKey(50)).has_value());
  EXPECT_EQ(sm->vrfId(plainKey(1)), 3U);
}

}  // namespace
}  // namespace OstraTest
