// What is refused, what a refusal leaves behind, and what corrupt rows do.

#include "EcmpFixture.h"
#include "OwnRules.h"

namespace OstraTest {
namespace {

class EcmpFailure : public Ecmp {
 protected:
  EcmpFailure() {
    writeEncap({});
    start();
  }

  // Stores a group's row with these counts, of which one is more than a list can have. The text of
  // the exception that comes of it.
  std::string writeDamagedGroup(Id id, std::uint32_t memberCount, std::uint32_t weightCount) {
    auto row = groupRow(id, {5, 5});
    row->lists.storedCountsIs(memberCount, weightCount);
    return messageOf<Korm::RangeException>([&] { groups->entryIs(*row); });
  }
};

TEST_F(EcmpFailure, AListLongerThanItsArrayIsARangeErrorAndNothingIsWritten) {
  writeMembers({5});
  writeGroup(3, {5});
  forgetWhatHappened();
  now += 1;
  const std::string error = writeDamagedGroup(3, 1025, 0);
  EXPECT_THAT(error, StartsWith("PodArray::set expected size <= 1024, instead got 1025. Buffer is "
                                "at address: 0x"));
  EXPECT_THAT(error, HasSubstr(" with contents: 0500000005000000"));
  EXPECT_THAT(writeDamagedGroup(3, 0xFFFFFFFF, 0), HasSubstr("instead got 4294967295."));
  EXPECT_THAT(writeDamagedGroup(3, 2, 1025), HasSubstr("instead got 1025."));
  EXPECT_THAT(writeDamagedGroup(3, 0, 1025), HasSubstr("instead got 1025."));
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_TRUE(groupCopies(3, {5}));
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(EcmpFailure, ADamagedListStopsAMemberChangeAtThatGroup) {
  writeMembers({5});
  for (const Id id : {1U, 2U, 3U}) {
    writeGroup(id, {5});
  }
  EXPECT_NE(writeDamagedGroup(2, 1025, 0), "");
  forgetWhatHappened();
  EXPECT_THAT(messageOf<Korm::RangeException>([&] { writeMember({.id = 5, .port = 2}); }),
              StartsWith("PodArray::set expected size <= 1024, instead got 1025."));
  EXPECT_THAT(writes(), ElementsAre("written member 5", "written group 1"));
  groups->entryDel(2);
  writeMember({.id = 5, .port = 2});
  EXPECT_TRUE(groupCopies(3, {5}));
}

TEST_F(EcmpFailure, OnlyEntryErrorsAreContained) {
  sm = Ostra::OstraEcmpGroupSmIs(cxHwConfig, groups, members, encaps, ports,
                                 Korm::makePtr<OwnRules>(), batchStatus, handles);
  writeGroup(3, {5});  // an entry error of the service's own
  EXPECT_THAT([&] { writeMember({.id = 5, .port = 3}); },
              testing::ThrowsMessage<std::logic_error>("1005 3 Action profile member 5"));
  EXPECT_THAT(told(), IsEmpty());
}

// The dying child shares the tables with its parent, so the rows are written before it is born.
using EcmpDeathTest = EcmpFailure;

TEST_F(EcmpDeathTest, AnEncapsulationOtherThanIpInIpStopsTheProcess) {
  writeEncap({.id = 8, .type = NexthopGroup::L2NhgEncapType::encapGre_});
  sm->p4rtEcmpMemberTableDel();
  writeMember({.id = 5, .encap = 8});
  EXPECT_DEATH(sm->handleNexthopInfo(5),
               "encapInfo\\.encapType\\(\\) == NexthopGroup::L2NhgEncapType::encapIpInIp_ "
               "\\(Ostra/OstraEcmpGroupSm:");
}

TEST_F(EcmpDeathTest, AMemberGroupOfOtherThanOneBucketStopsTheProcess) {
  writeMembers({5});
  sm->p4rtEcmpGroupTableDel();
  writeGroup(3, {5});
  auto* const member = cxHwConfig->groupEntry(memberBase + 5);
  member->bucketEnq({});
  const char* const text = "cxEntry->buckets\\(\\) == 1 \\(Ostra/OstraEcmpGroupSm:";
  EXPECT_DEATH(sm->handleEcmpGroup(3), text);
  member->bucketDelAll();
  EXPECT_DEATH(sm->handleEcmpGroup(3), text);
}

TEST_F(EcmpFailure, ACorruptRowOfOneKeyIsReportedAndTakenForGone) {
  writeMembers({5, 6});
  writeGroup(3, {5});
  forgetWhatHappened();
  corrupt(groups, 3);
  sm->handleEcmpGroup(3);
  EXPECT_THAT(corruptions(), ElementsAre("groups"));
  EXPECT_THAT(writes(), ElementsAre("deleted group 3"));
  EXPECT_THAT(told(), ElementsAre("2003 success"));

  corrupt(members, 5);
  sm->handleNexthopInfo(5);
  EXPECT_THAT(corruptions(), ElementsAre("members"));
  EXPECT_THAT(writes(), ElementsAre("deleted member 5"));
  EXPECT_THAT(told(), ElementsAre("1005 success"));

  corrupt(encaps, 9);
  writeMember({.id = 6});
  EXPECT_THAT(corruptions(), ElementsAre("encaps"));
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_THAT(told(),
              ElementsAre("1006 invalidArgument: Action profile member: 6 has invalid encapId: 9"));
}

TEST_F(EcmpFailure, ACorruptRowEndsAPassOverItsTableAndNoOther) {
  writeEncap({.id = 10});
  writeMembers({4, 5});
  writeMember({.id = 6, .encap = 10});
  writeMember({.id = 7, .encap = 10});
  for (const Id id : {1U, 2U, 3U}) {
    writeGroup(id, {4});
  }
  corrupt(groups, 2);
  forgetWhatHappened();
  writeMember({.id = 4, .port = 2});
  EXPECT_THAT(writes(), ElementsAre("written member 4", "written group 1"));
  EXPECT_THAT(corruptions(), ElementsAre("groups"));

  corrupt(members, 5);
  writeEncap({.lastOctet = 2});
  EXPECT_THAT(writes(), ElementsAre("written member 4", "written group 1"));
  EXPECT_THAT(corruptions(), ElementsAre("groups", "members"));

  writeGroup(2, {4});  // heals the row
  corrupt(encaps, 10);
  forgetWhatHappened();
  start();
  EXPECT_THAT(writes(), ElementsAre("written member 4", "written group 1", "written group 2",
                                    "written group 3", "written member 4", "written group 1",
                                    "written group 2", "written group 3", "written group 1",
                                    "written group 2", "written group 3"));
  EXPECT_THAT(corruptions(), ElementsAre("members", "encaps", "members"));
}

}  // namespace
}  // namespace OstraTest
