// The examples behind the books of VRFs; random histories against a model are in tests/soak.
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
  std::string removeFlow(std::uint16_t number) { return remove(flow(number, plainKey(number))); }
};

TEST_F(FlowVrf, TheFirstUserCreatesItAndTheLastOneEndsIt) {
  writeIn(5, 1);
  EXPECT_EQ(books(5), "1 users, creator 1, deletor none");
  EXPECT_TRUE(isDependent(1));
  EXPECT_EQ(dependentVrf(1), 5U);
  EXPECT_EQ(theFlow(1).actions().vrf(), 5U);
  writeIn(5, 2);
  EXPECT_EQ(books(5), "2 users, creator 1, deletor none");
  EXPECT_FALSE(isDependent(2));
  removeFlow(2);
  EXPECT_EQ(books(5), "1 users, creator 1, deletor none");

  write(flow(1, plainKey(1)));  // rewritten without a VRF
  EXPECT_EQ(books(5), "0 users, creator 1, deletor 1");
  EXPECT_EQ(sm->vrfId(plainKey(1)), noVrf);
  EXPECT_FALSE(theFlow(1).actions().has(OpenFlowTable::Action::vrf_));
}

TEST_F(FlowVrf, AWriteThatChangesNoVrfBooksNothing) {
  writeIn(5, 1);
  statusInfo->dependentHandleToVrfMapDelAll();
  Listener<const VrfId&> counts{vrfs->refCounts().notifiees()};
  writeIn(5, 1);
  write(flow(2, plainKey(2)));
  write(flow(2, plainKey(2)));
  removeFlow(2);
  EXPECT_EQ(counts.take(), 0);
  EXPECT_FALSE(isDependent(1));
  EXPECT_TRUE(statusInfo->dependentHandleToVrfMap().empty());
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
  EXPECT_EQ(dependentVrf(1), 0U);
  writeIn(0xFFFFFFFF, 2);
  EXPECT_EQ(books(0xFFFFFFFF), "1 users, creator 2, deletor none");
  writeIn(noVrf, 3);
  EXPECT_EQ(books(noVrf), "1 users, creator 3, deletor none");
  EXPECT_EQ(statusInfo->dependentHandleToVrfMap().find(P4Runtime::EntryHandle{3}), nullptr)
      << "none stands for no VRF";
  removeFlow(3);
  EXPECT_EQ(books(noVrf), "0 users, creator 3, deletor 3");
}

TEST_F(FlowVrf, IsBookedOutsideABatchTooWithNothingToHoldBack) {
  table->entryIs(flowInVrf(7, 1, 5));
  EXPECT_EQ(books(5), "1 users, creator 7, deletor none");
  EXPECT_FALSE(isDependent(7));
  EXPECT_NE(cxFlow(7), nullptr);
}

TEST_F(FlowVrf, IndexesKeepVrfAndHandleApart) {
  for (std::uint16_t number = 1; number <= 3; ++number) {
    sm->vrfIdIs(plainKey(number), number + 10U);
    sm->flowKeyToEntryHandleIs(plainKey(number), number + 20U);
  }
  EXPECT_EQ(sm->vrfIdDel(plainKey(1)), 11U);
  EXPECT_EQ(sm->vrfIdDel(plainKey(1)), noVrf);
  EXPECT_EQ(sm->flowKeyToEntryHandle(plainKey(1)), 21U);
  EXPECT_EQ(sm->flowKeyToEntryHandleDel(plainKey(2)), 22U);
  EXPECT_EQ(sm->flowKeyToEntryHandleDel(plainKey(2)), 0U);
  EXPECT_EQ(sm->vrfId(plainKey(2)), 12U);
  sm->vrfIdDelAll();
  sm->verify();
  EXPECT_EQ(sm->vrfId(plainKey(3)), noVrf);
  EXPECT_EQ(sm->flowKeyToEntryHandle(plainKey(3)), 23U);
  sm->vrfIdIs(plainKey(1), 3);
  sm->flowKeyToEntryHandleDelAll();
  sm->verify();
  EXPECT_FALSE(sm->flowKeyToEntryHandle(plainKey(3)).has_value());
  EXPECT_EQ(sm->vrfId(plainKey(1)), 3U);
}

}  // namespace
}  // namespace OstraTest
