// What the books of VRFs owe to others; random histories against a model are in tests/soak.
#include "FlowFixture.h"

namespace OstraTest {
namespace {

class FlowVrf : public FlowFixture {
 protected:
  FlowVrf() { start(); }
};

TEST_F(FlowVrf, IsBookedByTheCountsThatThePlatformKeepsAndInsideABatchOrNot) {
  write(flowInVrf(1, 1, 5));
  EXPECT_TRUE(isDependent(1));
  vrfs->vrfIdRefCountInc(5, 1);  // another table's flow
  remove(flow(1, plainKey(1)));
  EXPECT_EQ(books(5), "1 users, creator 1, deletor none");
  table->entryIs(flowInVrf(2, 2, 6));
  EXPECT_EQ(books(6), "1 users, creator 2, deletor none");
  EXPECT_EQ(dependentVrf(2), 6U);
  EXPECT_FALSE(isDependent(2)) << "outside a batch there is nothing to hold back";
  vrfs->vrfIdRefCountDel(6);
  remove(flow(2, plainKey(2)));
  EXPECT_EQ(books(6), "0 users, creator 2, deletor none") << "no count, so not the last";
}

TEST_F(FlowVrf, IndexesKeepVrfAndHandleApart) {
  for (std::uint16_t number = 1; number <= 2; ++number) {
    sm->vrfIdIs(plainKey(number), number + 10U);
    sm->flowKeyToEntryHandleIs(plainKey(number), number + 20U);
  }
  EXPECT_EQ(sm->vrfIdDel(plainKey(1)), 11U);
  EXPECT_EQ(sm->vrfIdDel(plainKey(1)), noVrf);
  EXPECT_EQ(sm->flowKeyToEntryHandleDel(plainKey(2)), 22U);
  EXPECT_EQ(sm->flowKeyToEntryHandleDel(plainKey(2)), 0U);
  sm->vrfIdDelAll();
  sm->verify();
  EXPECT_EQ(sm->vrfId(plainKey(2)), noVrf);
  EXPECT_EQ(sm->flowKeyToEntryHandle(plainKey(1)), 21U);
  sm->vrfIdIs(plainKey(1), 3);
  sm->flowKeyToEntryHandleDelAll();
  sm->verify();
  EXPECT_EQ(sm->vrfId(plainKey(1)), 3U);
}

}  // namespace
}  // namespace OstraTest
