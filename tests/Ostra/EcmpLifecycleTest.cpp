// How the ECMP state machine starts, is switched, is detached and goes.
#include "EcmpFixture.h"

namespace EcmpTest {
namespace {

using Ostra::OstraEcmpGroupSm;
using testing::ElementsAre;
using testing::IsEmpty;

class EcmpLifecycle : public Ecmp {
 protected:
  void writeAll() {
    writeEncap({});
    writeMembers({5, 6});
    writeGroup(3, {5, 6});
  }
};

TEST_F(EcmpLifecycle, StartWritesMembersTwiceAndBeforeTheGroupsOfThem) {
  writeGroup(3, {5, 6});
  writeMembers({5, 6});
  writeEncap({});
  start();
  EXPECT_TRUE(sm_->initialized());
  EXPECT_TRUE(sm_->hasNotificationActive());
  EXPECT_THAT(writes(), ElementsAre("created member 5", "written member 5", "created member 6",
                                    "written member 6", "written member 5", "written member 6",
                                    "created group 3", "written group 3"));
  EXPECT_TRUE(groupCopies(3, {5, 6}));
  EXPECT_THAT(results(), IsEmpty());
}

TEST_F(EcmpLifecycle, GoingItLeavesWhatItWroteAndTheNextOneRebuildsThatInPlaceAndDeletesNothing) {
  writeAll();
  start();
  stop();
  EXPECT_EQ(groups_->references(), 1U);
  cxHwConfig_->groupEntryIs(88);
  forgetWhatHappened();
  writeEncap({.lastOctet = 2});
  members_->entryDel(6);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_EQ(corvexGroup(3)->buckets(), 2U) << "what was written stays";
  start();
  EXPECT_THAT(writes(), ElementsAre("written member 5", "written group 3", "written member 5",
                                    "written group 3", "written group 3"));
  EXPECT_NE(corvexMember(6), nullptr) << "nobody told that it went";
  EXPECT_NE(corvexGroup(88), nullptr);
}

TEST_F(EcmpLifecycle, MissingTablesAreAsGoodAsEmptyOnes) {
  writeAll();
  const auto without = [this](const auto& groupTable, const auto& memberTable,
                              const auto& encapTable) {
    forgetWhatHappened();
    sm_ = Ostra::OstraEcmpGroupSmIs(cxHwConfig_, groupTable, memberTable, encapTable, ports_,
                                    helper_, batch_, handles_);
  };
  without(groups_, nullptr, encaps_);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_THAT(results(), ElementsAre("2003 15 Action profile group: 3 member 5 not found"));
  writeMember({.id = 5});
  EXPECT_THAT(writes(), IsEmpty());

  without(groups_, members_, nullptr);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_THAT(results(), ElementsAre("1005 15 Action profile member: 5 has invalid encapId: 9",
                                     "1006 15 Action profile member: 6 has invalid encapId: 9",
                                     "2003 15 Action profile group: 3 member 5 not found"));

  without(nullptr, members_, encaps_);
  EXPECT_NE(corvexMember(5), nullptr);
  EXPECT_EQ(corvexGroup(3), nullptr);
  EXPECT_THAT(results(), IsEmpty());
}

TEST_F(EcmpLifecycle, MissingServicesAreTolerated) {
  writeAll();
  sm_ = Ostra::OstraEcmpGroupSmIs(nullptr, groups_, members_, encaps_, nullptr, nullptr, nullptr,
                                  nullptr);
  members_->entryDel(6);
  groups_->entryDel(3);
  sm_ = Ostra::OstraEcmpGroupSmIs(cxHwConfig_, groups_, members_, encaps_, nullptr, helper_, batch_,
                                  nullptr);
  EXPECT_TRUE(memberActions(5).outputIntf().empty());
  EXPECT_TRUE(memberActions(5).has(Action::outputIntf_));
  members_->entryDel(5);
  EXPECT_EQ(corvexMember(5), nullptr);
  EXPECT_THAT(results(), IsEmpty());
}

TEST_F(EcmpLifecycle, SwitchingReachesTheReactorsOnlyWhenItIsAChange) {
  sm_ = Korm::makePtr<OstraEcmpGroupSm>(cxHwConfig_, groups_, members_, encaps_, ports_, helper_,
                                        batch_, handles_);
  EXPECT_FALSE(sm_->hasNotificationActive());
  sm_->hasNotificationActiveIs(false);  // as it is already: the reactors stay on
  writeAll();
  EXPECT_TRUE(groupCopies(3, {5, 6}));

  sm_->hasNotificationActiveIs(true);
  sm_->hasNotificationActiveIs(false);
  forgetWhatHappened();
  writeEncap({.lastOctet = 2});
  writeMember({.id = 7});
  groups_->entryDel(3);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_THAT(results(), IsEmpty());

  sm_->hasNotificationActiveIs(true);
  writeMember({.id = 6, .port = 2});
  EXPECT_THAT(writes(), ElementsAre("written member 6"));
}

TEST_F(EcmpLifecycle, ADetachedTableIsStillReadButNoLongerWatched) {
  writeAll();
  start();
  forgetWhatHappened();

  sm_->ipv4EncapTableDel();
  writeEncap({.lastOctet = 2});
  EXPECT_THAT(writes(), IsEmpty());
  writeMember({.id = 5});
  EXPECT_THAT(writes(), ElementsAre("written member 5", "written group 3"));
  EXPECT_EQ(memberActions(5).encap().src.octets[3], 2);

  sm_->p4rtEcmpGroupTableDel();
  writeGroup(4, {5});
  groups_->entryDel(3);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_NE(corvexGroup(3), nullptr);

  sm_->p4rtEcmpMemberTableDel();
  members_->entryDel(5);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_NE(corvexMember(5), nullptr);

  sm_->p4rtEcmpMemberTableDel();
  sm_->hasNotificationActiveIs(false);
  EXPECT_THAT(results(), IsEmpty());
}

TEST_F(EcmpLifecycle, AReactorMayBeDetachedByWhatItCauses) {
  struct Detacher {
    void result(const P4Runtime::TransactionResult&) { sm.p4rtEcmpGroupTableDel(); }
    OstraEcmpGroupSm& sm;
  };
  writeAll();
  start();
  Detacher detacher{*sm_};
  const Korm::MemberNotifiee<Detacher, &Detacher::result, const P4Runtime::TransactionResult&>
      reactor{detacher, batch_->resultNotifiees()};
  forgetWhatHappened();
  groups_->entryDel(3);
  EXPECT_THAT(writes(), ElementsAre("deleted group 3"));
  writeGroup(3, {5, 6});
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(EcmpLifecycle, AStartThatRaisesLeavesNoStateMachineBehind) {
  writeEncap({});
  writeMember({.id = 5});
  auto damaged = groupRow(3, {5});
  damaged->lists.storedCountsIs(P4RuntimeRouting::maxMembers + 1, 0);
  groups_->entryIs(*damaged);
  EXPECT_THROW(start(), Korm::RangeException);
  EXPECT_EQ(sm_, nullptr);
  EXPECT_TRUE(groups_->entryNotifiees().empty());
  EXPECT_TRUE(members_->entryNotifiees().empty());
  EXPECT_TRUE(encaps_->entryNotifiees().empty());
  EXPECT_EQ(cxHwConfig_->references(), 1U);
  EXPECT_EQ(batch_->references(), 2U) << "the fixture's and the validation helper's";
  EXPECT_NE(corvexMember(5), nullptr);
}

}  // namespace
}  // namespace EcmpTest
