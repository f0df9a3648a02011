// What members and groups become in Corvex, and how changes spread.
#include <numeric>

#include "EcmpFixture.h"

namespace EcmpTest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class EcmpProgramming : public Ecmp {
 protected:
  EcmpProgramming() {
    writeEncap({});
    start();
  }
};

TEST_F(EcmpProgramming, AMemberBecomesAnIndirectGroupWithItsNextHop) {
  const Korm::EthAddr dstMac{{0x02, 0x11, 0x22, 0x33, 0x44, 0x55}};
  const Korm::EthAddr srcMac{{0x06, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE}};
  now = 1234.5;
  writeMember({.id = 12, .port = 2, .dstMac = dstMac, .srcMac = srcMac});
  EXPECT_THAT(writes(), ElementsAre("created member 12", "written member 12"));
  const auto* const group = std::as_const(*cxHwConfig).groupEntry(4294967308);
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(group->groupType(), GroupType{2});
  EXPECT_EQ(group->changeCount(), 1234.5);

  OpenFlowTable::Actions wanted;
  wanted.outputIntfIs(Interface::IntfId{"Ethernet2"}, true);
  wanted.encapIs({.src = {{10, 0, 0, 1}},
                  .dst = {{10, 0, 1, 1}},
                  .type = 1,
                  .ttl = 64,
                  .dscp = 46,
                  .reserved = 0},
                 true);
  wanted.dstMacIs(dstMac, true);
  wanted.srcMacIs(srcMac, true);
  wanted.fixedBlockIs({0x00, 0x05, 0x41, 0x00, 0x40, 0x00, 0x00, 0x00}, true);
  EXPECT_EQ(memberActions(12), wanted);
  EXPECT_THAT(told(), IsEmpty()) << "the hardware's outcome is the result";
}

TEST_F(EcmpProgramming, ABucketIsCopiedWhole) {
  writeMembers({5});
  OpenFlowTable::Bucket bucket = corvexMember(5)->bucket().at(0);
  bucket.actions.vlanIdIs(Bridging::VlanIdOrNone{100}, true);
  bucket.actions.ingrMirrorIntfIs(Interface::IntfId{"Mirror1"}, false);
  auto* const member = cxHwConfig->groupEntry(memberBase + 5);
  member->bucketDelAll();
  member->bucketEnq(bucket);
  writeGroup(3, {5});
  EXPECT_THAT(corvexGroup(3)->bucket(), ElementsAre(bucket));
}

TEST_F(EcmpProgramming, GroupsOfAnySizeFollowTheirMembers) {
  for (const std::size_t size : {1U, 64U, 1024U}) {
    Ids list(size);
    std::iota(list.rbegin(), list.rend(), 1U);
    for (const Id id : list) {
      writeMember({.id = id, .dstMac = {{2, 0, 0, 0, std::uint8_t(id >> 8U), std::uint8_t(id)}}});
    }
    const auto group = static_cast<Id>(size);
    writeGroup(group, list);
    ASSERT_TRUE(groupCopies(group, list)) << size;
    const auto* const memory = corvexGroup(group)->bucket().data();
    writeMember({.id = 1, .port = 2});
    EXPECT_TRUE(groupCopies(group, list)) << size;
    EXPECT_EQ(corvexGroup(group)->bucket().data(), memory) << "written in place";
  }
}

TEST_F(EcmpProgramming, AnEncapsulationChangeRewritesItsMembersEachWithItsGroups) {
  writeEncap({.id = 300});
  writeMembers({1, 2, 3});
  writeMember({.id = 4, .encap = 300});
  writeGroup(21, {1, 2, 3});
  writeGroup(22, {3, 4});
  writeGroup(23, {4});
  forgetWhatHappened();
  writeEncap({.lastOctet = 7});
  EXPECT_THAT(writes(), ElementsAre("written member 1", "written group 21", "written member 2",
                                    "written group 21", "written member 3", "written group 21",
                                    "written group 22"));
  EXPECT_EQ(memberActions(3).encap().src.octets[3], 7);
  EXPECT_EQ(memberActions(4).encap().src.octets[3], 1);
  EXPECT_TRUE(groupCopies(21, {1, 2, 3}));
  EXPECT_TRUE(groupCopies(22, {3, 4}));

  writeEncap({.id = 99});
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(EcmpProgramming, DeletesAreAcknowledgedAlsoWhenNothingWasThere) {
  writeMembers({5});
  writeGroup(3, {5});
  writeGroup(4, {6});
  writeMember({.id = 7, .encap = 8});
  forgetWhatHappened();
  groups->entryDel(3);
  EXPECT_THAT(writes(), ElementsAre("deleted group 3"));
  groups->entryDel(4);
  members->entryDel(5);
  EXPECT_THAT(writes(), ElementsAre("deleted member 5"));
  members->entryDel(7);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_THAT(told(), ElementsAre("2003 success", "2004 success", "1005 success", "1007 success"));

  groups->entryDel(3);
  EXPECT_THAT(told(), IsEmpty()) << "no row, no change";
  sm->handleEcmpGroup(33);
  sm->handleNexthopInfo(33);
  EXPECT_THAT(told(), ElementsAre("0 success", "0 success"))
      << "ids that the service does not know";
}

TEST_F(EcmpProgramming, ARewrittenGroupIsNeitherDeletedNorUnready) {
  writeMembers({5});
  writeGroup(3, {5});
  for (auto* const group : {cxHwConfig->groupEntry(memberBase + 5), cxHwConfig->groupEntry(3)}) {
    group->deletedIs(true);
    group->readyIs(false);
    group->groupTypeIs(GroupType::all_);
  }
  forgetWhatHappened();
  writeMember({.id = 5, .port = 2});
  // The fixture looks at each group when its change is announced.
  EXPECT_THAT(writes(), ElementsAre("written member 5", "written group 3"));
}

}  // namespace
}  // namespace EcmpTest
