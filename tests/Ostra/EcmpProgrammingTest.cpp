// What members and groups become in Corvex, and how changes spread.
#include <numeric>

#include "EcmpFixture.h"
#include "Ostra/Trace.h"
#include "platform/Brisklog/TextTrace.h"

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
  const auto* const group = std::as_const(*cxHwConfig_).groupEntry(4294967308);
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
  EXPECT_THAT(results(), IsEmpty()) << "the hardware's outcome is the result";
}

TEST_F(EcmpProgramming, WhatAMemberDoesNotHaveIsEmptyOrAbsentInItsBucket) {
  writeMember({.id = 4294967295, .port = 77, .dstMac = {{0, 0, 0, 0, 0, 1}}});
  const auto* const group = std::as_const(*cxHwConfig_).groupEntry(8589934591);
  ASSERT_NE(group, nullptr);
  const auto& actions = group->bucket().at(0).actions;
  EXPECT_TRUE(actions.outputIntf().empty());
  EXPECT_TRUE(actions.has(Action::outputIntf_));
  EXPECT_TRUE(actions.has(Action::dstMac_));
  EXPECT_FALSE(actions.has(Action::srcMac_));
}

TEST_F(EcmpProgramming, ARewrittenMemberKeepsNothingOfItsOldBucket) {
  writeEncap({.id = 10, .lastOctet = 2});
  writeMember({.id = 5, .dstMac = {{2, 0, 0, 0, 0, 5}}});
  writeMember({.id = 5, .port = 2, .encap = 10});
  EXPECT_EQ(corvexMember(5)->buckets(), 1U);
  EXPECT_EQ(memberActions(5).outputIntf().name(), "Ethernet2");
  EXPECT_EQ(memberActions(5).encap().dst, (Korm::Ip4Addr{{10, 0, 1, 2}}));
  EXPECT_FALSE(memberActions(5).has(Action::dstMac_));
  EXPECT_TRUE(memberActions(5).dstMac().isZero());
}

TEST_F(EcmpProgramming, AGroupCopiesItsMembersBucketsInItsOrder) {
  writeMembers({7});
  writeMember({.id = 8, .port = 2});
  writeMember({.id = 9, .dstMac = {{2, 0, 0, 0, 0, 9}}});
  for (const Ids& list : {Ids{7, 8, 9}, Ids{9, 7, 8}, Ids{8}, Ids{8, 7, 8}}) {
    forgetWhatHappened();
    now += 1;
    writeGroup(7, list);
    EXPECT_THAT(writes(), testing::Contains("written group 7"));
    EXPECT_TRUE(groupCopies(7, list)) << testing::PrintToString(list);
  }
  EXPECT_EQ(corvexMember(7)->groupType(), GroupType::indirect_) << "is Corvex group 4294967303";
  EXPECT_THAT(results(), IsEmpty());
}

TEST_F(EcmpProgramming, ABucketIsCopiedWhole) {
  writeMembers({5});
  OpenFlowTable::Bucket bucket = corvexMember(5)->bucket().at(0);
  bucket.actions.vlanIdIs(Bridging::VlanIdOrNone{100}, true);
  bucket.actions.ingrMirrorIntfIs(Interface::IntfId{"Mirror1"}, false);
  auto* const member = cxHwConfig_->groupEntry(memberBase + 5);
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

TEST_F(EcmpProgramming, AnEmptyListWritesNothingAndLeavesAnOlderGroup) {
  writeMembers({5});
  writeGroup(4, {});
  writeGroup(3, {5});
  forgetWhatHappened();
  now += 1;
  writeGroup(3, {});
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_EQ(corvexGroup(4), nullptr);
  EXPECT_TRUE(groupCopies(3, {5}));
  EXPECT_NE(corvexGroup(3)->changeCount(), now);

  writeMember({.id = 5, .port = 2});
  EXPECT_THAT(writes(), ElementsAre("written member 5")) << "the group no longer lists it";
  EXPECT_THAT(results(), IsEmpty());
}

TEST_F(EcmpProgramming, AMemberChangeRebuildsEachProgrammedGroupThatListsItOnce) {
  writeMembers({5, 6});
  writeGroup(1, {5, 6, 5});
  writeGroup(2, {6});
  writeGroup(3, {6, 5});
  writeGroup(4, {5, 9});  // fails: 9 is not there
  forgetWhatHappened();
  writeMember({.id = 5, .port = 2});
  EXPECT_THAT(writes(), ElementsAre("written member 5", "written group 1", "written group 3"));
  EXPECT_TRUE(groupCopies(1, {5, 6, 5}));
  EXPECT_TRUE(groupCopies(3, {6, 5}));

  writeMembers({9});
  EXPECT_THAT(writes(), ElementsAre("created member 9", "written member 9"));
  EXPECT_THAT(results(), IsEmpty()) << "a group that failed waits for its own row";
  writeGroup(4, {5, 9});
  EXPECT_TRUE(groupCopies(4, {5, 9}));
}

TEST_F(EcmpProgramming, AnEncapsulationChangeRewritesItsMembersEachWithItsGroups) {
  writeEncap({.id = 10});
  writeMembers({1, 2, 3});
  writeMember({.id = 4, .encap = 10});
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

TEST_F(EcmpProgramming, ANewEncapsulationEntryProgramsTheMembersThatWaitedForIt) {
  writeMember({.id = 5, .encap = 8});
  writeGroup(3, {5});
  EXPECT_THAT(writes(), IsEmpty());
  writeEncap({.id = 8});
  EXPECT_THAT(writes(), ElementsAre("created member 5", "written member 5"));
}

TEST_F(EcmpProgramming, APortMappingIsReadWhenAMemberIsWrittenAndNotWatched) {
  writeMembers({5});
  forgetWhatHappened();
  ports_->portIs(1, Interface::IntfId{"Ethernet9"});
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_EQ(memberActions(5).outputIntf().name(), "Ethernet1");
  writeEncap({});
  EXPECT_EQ(memberActions(5).outputIntf().name(), "Ethernet9");
}

TEST_F(EcmpProgramming, DeletesAreAcknowledgedAlsoWhenNothingWasThere) {
  writeMembers({5});
  writeGroup(3, {5});
  writeGroup(4, {6});
  writeMember({.id = 7, .encap = 8});
  forgetWhatHappened();
  groups_->entryDel(3);
  EXPECT_THAT(writes(), ElementsAre("deleted group 3"));
  groups_->entryDel(4);
  members_->entryDel(5);
  EXPECT_THAT(writes(), ElementsAre("deleted member 5"));
  members_->entryDel(7);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_THAT(results(), ElementsAre("2003 0", "2004 0", "1005 0", "1007 0"));

  groups_->entryDel(3);
  EXPECT_THAT(results(), IsEmpty()) << "no row, no change";
  sm_->handleEcmpGroup(33);
  sm_->handleNexthopInfo(33);
  EXPECT_THAT(results(), ElementsAre("0 0", "0 0")) << "ids that the service does not know";
}

TEST_F(EcmpProgramming, AMemberDeleteLeavesTheGroupsThatListItUntilTheirOwnRowsChange) {
  writeMembers({5, 6});
  writeGroup(3, {5, 6});
  const std::vector<OpenFlowTable::Bucket> before = corvexGroup(3)->bucket();
  forgetWhatHappened();
  now += 1;
  members_->entryDel(5);
  EXPECT_THAT(writes(), ElementsAre("deleted member 5"));
  EXPECT_EQ(corvexGroup(3)->bucket(), before);
  EXPECT_THAT(results(), ElementsAre("1005 0"));

  writeMember({.id = 6, .port = 2});
  EXPECT_THAT(writes(), ElementsAre("written member 6"));
  EXPECT_EQ(corvexGroup(3)->bucket(), before) << "cannot be rebuilt without 5";
  EXPECT_THAT(results(), ElementsAre("2003 15 Action profile group: 3 member 5 not found"));

  writeMembers({5});
  EXPECT_THAT(writes(), ElementsAre("created member 5", "written member 5", "written group 3"));
  EXPECT_TRUE(groupCopies(3, {5, 6}));
}

class EcmpTrace : public EcmpProgramming {
 protected:
  EcmpTrace() {
    Brisklog::textSinkIs([this](const Brisklog::TextMessage& message) {
      texts_.push_back(std::string{message.unit} + " " + std::string{message.text});
    });
  }
  ~EcmpTrace() override {
    Ostra::traceHandle.levelIs(-1);
    Brisklog::textSinkIs(nullptr);
  }
  [[nodiscard]] Lines texts() {
    Lines out;
    for (const std::string& text : std::exchange(texts_, {})) {
      const std::string prefix = "Ostra/OstraEcmpGroupSm OstraEcmpGroupSm::";
      EXPECT_EQ(text.substr(0, prefix.size()), prefix);
      out.push_back(text.substr(prefix.size()));
    }
    return out;
  }

 private:
  Lines texts_;
};

TEST_F(EcmpTrace, HandlersTraceTheirEntryAtTheLowestLevelAndTheirStepsAtTheRoutineOne) {
  Ostra::traceHandle.levelIs(Ostra::TraceLevel::routine);
  writeMember({.id = 12});
  EXPECT_THAT(texts(),
              ElementsAre("handleNexthopInfo memberId: 12", "validateNexthop",
                          "handleNexthopInfoUpdate Add ofGroup: 4294967308 for memberId: 12",
                          "maybeUpdateGroupOnMemberChange member id: 12"));
  writeGroup(3, {12});
  EXPECT_THAT(texts(), ElementsAre("handleEcmpGroup groupId=3",
                                   "addEcmpGroup Add member ofGroup: 4294967308 for group: 3",
                                   "addEcmpGroup Add ofGroup: 3 for groupId: 3"));
  writeGroup(4, {});
  EXPECT_THAT(texts(), ElementsAre("handleEcmpGroup groupId=4",
                                   "addEcmpGroup Action profile group: 4 has empty member"));
  groups_->entryDel(3);
  EXPECT_THAT(texts(), ElementsAre("handleEcmpGroup groupId=3",
                                   "deleteEcmpGroup ofGroup 3 deleted in CX config",
                                   "deleteEcmpGroup groupId: 3 deleted"));
  members_->entryDel(12);
  EXPECT_THAT(texts(),
              ElementsAre("handleNexthopInfo memberId: 12",
                          "handleNexthopInfoDelete ofGroup 4294967308 deleted in CX config",
                          "handleNexthopInfoDelete memberId: 12 deleted"));

  Ostra::traceHandle.levelIs(Ostra::TraceLevel::failure);
  start();
  EXPECT_THAT(texts(),
              ElementsAre("handleInitialized", "handleEncapEntry", "handleEncapEntry encapId: 9",
                          "handleNexthopInfo", "handleEcmpGroup", "handleEcmpGroup groupId=4"));
}

}  // namespace
}  // namespace EcmpTest
