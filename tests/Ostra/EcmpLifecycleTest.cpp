// How the ECMP state machine starts, rewrites what is there, is switched, is detached and goes.

#include "Ostra/OstraEcmpGroupSm.h"
#include "OwnRules.h"
#include "ServiceFixture.h"

namespace OstraTest {
namespace {

std::string groupName(GroupId id) {
  return id >= memberBase ? "member " + std::to_string(id - memberBase)
                          : "group " + std::to_string(id);
}

// A service with its ECMP tables, the Corvex configuration, and an ECMP state machine between them.
//
// What happens is kept as lines, in order: writes() of Corvex groups ("created member 5", "written
// group 3", "deleted group 3") and corruptions() reported to the tables. Each call takes the lines
// since the last one.
class Ecmp : public ServiceFixture {
 protected:
  Ecmp() {
    groups->corruptionHandlerIs([this](const auto&) { corruptions_.emplace_back("groups"); });
    members->corruptionHandlerIs([this](const auto&) { corruptions_.emplace_back("members"); });
    encaps->corruptionHandlerIs([this](const auto&) { corruptions_.emplace_back("encaps"); });
  }

  // Makes a state machine on the tables, as the context does. `change` gives it other inputs.
  void start(const std::function<void(Ostra::OstraEcmpGroupSm::Inputs&)>& change = [](auto&) {}) {
    Ostra::OstraEcmpGroupSm::Inputs inputs{cxHwConfig, groups,     members,     encaps,
                                           ports,      validation, batchStatus, handles};
    change(inputs);
    sm = Ostra::ostraEcmpGroupSmFactory(inputs);
  }

  // Changes a row behind the back of its table, as stray writes to shared memory do.
  template <class Table>
  static void corrupt(const Korm::Ptr<Table>& table, const typename Table::Key& key) {
    const typename Table::Record* const row = table->entry(key);
    std::size_t size = sizeof(*row);
    if constexpr (requires { row->usedSize(); }) {
      size = row->usedSize();
    }
    const_cast<std::byte*>(reinterpret_cast<const std::byte*>(row))[size - 1] ^= std::byte{0xFF};
  }

  [[nodiscard]] const OpenFlowTable::GroupEntry* corvexGroup(Id id) const {
    return std::as_const(*cxHwConfig).groupEntry(id);
  }
  [[nodiscard]] const OpenFlowTable::GroupEntry* corvexMember(Id id) const {
    return std::as_const(*cxHwConfig).groupEntry(memberBase + id);
  }
  // The actions of a member's only bucket.
  [[nodiscard]] const OpenFlowTable::Actions& memberActions(Id id) const {
    return corvexMember(id)->bucket().at(0).actions;
  }
  // Whether a group holds, in this order, what the members' buckets are now.
  [[nodiscard]] testing::AssertionResult groupCopies(Id id, const Ids& list) const {
    const auto* const group = corvexGroup(id);
    if (group == nullptr || group->groupType() != GroupType::select_) {
      return testing::AssertionFailure() << "no select group " << id;
    }
    std::vector<OpenFlowTable::Bucket> wanted;
    for (const Id member : list) {
      wanted.push_back(corvexMember(member)->bucket().at(0));
    }
    return group->bucket() == wanted
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << "other buckets in group " << id;
  }

  [[nodiscard]] Texts writes() { return std::exchange(writes_, {}); }
  [[nodiscard]] Texts told() { return results.takeEach(); }
  [[nodiscard]] Texts corruptions() { return std::exchange(corruptions_, {}); }
  void forgetWhatHappened() {
    writes_.clear();
    results.takeEach();
  }

 public:
  Korm::Ptr<Ostra::OstraEcmpGroupSm> sm;

 private:
  // Also checks that a group is whole by the time its change is announced.
  void corvexGroupChanged(const GroupId& id) {
    const auto* const group = std::as_const(*cxHwConfig).groupEntry(id);
    if (group == nullptr) {
      writes_.push_back("deleted " + groupName(id));
    } else if (group->changeCount() == 0) {
      EXPECT_EQ(group->buckets(), 0U);
      writes_.push_back("created " + groupName(id));
    } else {
      EXPECT_EQ(group->changeCount(), now);
      EXPECT_EQ(group->groupType(), id < memberBase ? GroupType::select_ : GroupType::indirect_);
      EXPECT_TRUE(id < memberBase ? group->buckets() > 0 : group->buckets() == 1);
      EXPECT_TRUE(group->ready());
      EXPECT_FALSE(group->deleted());
      writes_.push_back("written " + groupName(id));
    }
  }

  Texts writes_;
  Texts corruptions_;
  Korm::MemberNotifiee<Ecmp, &Ecmp::corvexGroupChanged, const GroupId&> corvexReactor_{
      *this, cxHwConfig->groupEntryNotifiees()};
};

class EcmpLifecycle : public Ecmp {
 protected:
  void writeAll() {
    writeEncap({});
    writeMembers({5, 6});
    writeGroup(3, {5, 6});
  }
};

TEST_F(EcmpLifecycle, MissingTablesAreAsGoodAsEmptyOnes) {
  writeAll();
  start([](auto& inputs) { inputs.p4rtEcmpMemberTable = nullptr; });
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_THAT(told(),
              ElementsAre("2003 invalidArgument: Action profile group: 3 member 5 not found"));
  writeMember({.id = 5});
  EXPECT_THAT(writes(), IsEmpty());

  start([](auto& inputs) { inputs.ipv4EncapTable = nullptr; });
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_THAT(told(),
              ElementsAre("1005 invalidArgument: Action profile member: 5 has invalid encapId: 9",
                          "1006 invalidArgument: Action profile member: 6 has invalid encapId: 9",
                          "2003 invalidArgument: Action profile group: 3 member 5 not found"));

  start([](auto& inputs) { inputs.p4rtEcmpGroupTable = nullptr; });
  EXPECT_NE(corvexMember(5), nullptr);
  EXPECT_EQ(corvexGroup(3), nullptr);
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(EcmpLifecycle, MissingServicesAreTolerated) {
  writeAll();
  start([](auto& inputs) {
    inputs.cxHwConfig = nullptr;
    inputs.validationHelper = nullptr;
    inputs.batchStatus = nullptr;
    inputs.p4HandleMgr = nullptr;
  });
  members->entryDel(6);
  groups->entryDel(3);
  start([](auto& inputs) {
    inputs.p4RtPortMappingStatus = nullptr;
    inputs.p4HandleMgr = nullptr;
  });
  EXPECT_TRUE(memberActions(5).outputIntf().empty());
  EXPECT_TRUE(memberActions(5).has(Action::outputIntf_));
  members->entryDel(5);
  EXPECT_EQ(corvexMember(5), nullptr);
  EXPECT_THAT(told(), IsEmpty());
  forgetWhatHappened();
  start([](auto& inputs) { inputs.validationHelper = nullptr; });
  writeAll();
  EXPECT_THAT(writes(), IsEmpty()) << "what cannot be checked is not written";
}

TEST_F(EcmpLifecycle, IgnoresChangesWhileItIsSwitchedOff) {
  writeAll();
  start();
  sm->hasNotificationActiveIs(false);
  forgetWhatHappened();
  writeEncap({.lastOctet = 2});
  writeMember({.id = 7});
  groups->entryDel(3);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_THAT(told(), IsEmpty());
  sm->hasNotificationActiveIs(true);
  writeMember({.id = 6, .port = 2});
  EXPECT_THAT(writes(), ElementsAre("written member 6"));
}

TEST_F(EcmpLifecycle, ADetachedTableIsStillReadButNoLongerWatched) {
  writeAll();
  start();
  forgetWhatHappened();

  sm->ipv4EncapTableDel();
  writeEncap({.lastOctet = 2});
  EXPECT_THAT(writes(), IsEmpty());
  writeMember({.id = 5});
  EXPECT_THAT(writes(), ElementsAre("written member 5", "written group 3"));
  EXPECT_EQ(memberActions(5).encap().src.octets[3], 2);

  sm->p4rtEcmpGroupTableDel();
  writeGroup(4, {5});
  groups->entryDel(3);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_NE(corvexGroup(3), nullptr);

  sm->p4rtEcmpMemberTableDel();
  members->entryDel(5);
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_NE(corvexMember(5), nullptr);

  sm->p4rtEcmpMemberTableDel();
  sm->hasNotificationActiveIs(false);
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(EcmpLifecycle, AStartThatRaisesLeavesNoStateMachineBehind) {
  writeEncap({});
  writeMember({.id = 5});
  auto damaged = groupRow(3, {5});
  damaged->lists.storedCountsIs(P4RuntimeRouting::maxMembers + 1, 0);
  groups->entryIs(*damaged);
  EXPECT_THROW(start(), Korm::RangeException);
  EXPECT_EQ(sm, nullptr);
  EXPECT_TRUE(groups->entryNotifiees().empty());
  EXPECT_TRUE(members->entryNotifiees().empty());
  EXPECT_TRUE(encaps->entryNotifiees().empty());
  EXPECT_EQ(cxHwConfig->references(), 1U);
  EXPECT_EQ(batchStatus->references(), 2U) << "the fixture's and the validation helper's";
  EXPECT_NE(corvexMember(5), nullptr);
}

TEST_F(EcmpLifecycle, AGroupOfTheLargestSizeFollowsItsMembers) {
  writeEncap({});
  start();
  Ids list(P4RuntimeRouting::maxMembers);
  std::iota(list.rbegin(), list.rend(), 1U);
  for (const Id id : list) {
    writeMember({.id = id, .dstMac = {{2, 0, 0, 0, std::uint8_t(id >> 8U), std::uint8_t(id)}}});
  }
  writeGroup(3, list);
  ASSERT_TRUE(groupCopies(3, list));
  writeMember({.id = 1, .port = 2});
  EXPECT_TRUE(groupCopies(3, list));
}

TEST_F(EcmpLifecycle, ARewrittenGroupIsNeitherDeletedNorUnready) {
  writeAll();
  start();
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

// What reactors do back while members and groups are written: they delete them, write them again,
// or drop the state machine.
class EcmpReentry : public Ecmp {
 protected:
  EcmpReentry() {
    writeEncap({});
    start();
  }

  // Makes a reactor do this, once, when Corvex tells of the next group.
  void onNextGroup(std::function<void()> act) { reactor_.nextIs(std::move(act)); }

  // Writes a Corvex group of one empty bucket, as nobody but the library should.
  void writeCorvexGroup(GroupId id) {
    auto* const group = cxHwConfig->groupEntry(id);
    group->groupTypeIs(id < memberBase ? GroupType::select_ : GroupType::indirect_);
    group->bucketDelAll();
    group->bucketEnq({});
    group->readyIs(true);
    group->changeCountIs(now);
  }

  const std::vector<OpenFlowTable::Bucket> oneEmptyBucket{{}};

 private:
  Listener<const GroupId&> reactor_{cxHwConfig->groupEntryNotifiees()};
};

TEST_F(EcmpReentry, WhatAReactorDoesToANewGroupIsKept) {
  const auto writeGroupWhile = [this](const std::function<void()>& act) {
    groups->entryDelAll();
    writeMembers({5, 6});
    onNextGroup(act);
    writeGroup(3, {5, 6});
    return corvexGroup(3);
  };
  EXPECT_EQ(writeGroupWhile([&] { groups->entryDel(3); }), nullptr);
  EXPECT_EQ(writeGroupWhile([&] { cxHwConfig->groupEntryDel(3); }), nullptr);
  writeGroupWhile([&] { writeGroup(3, {6}); });
  EXPECT_TRUE(groupCopies(3, {6}));
  writeGroupWhile([&] { writeMember({.id = 5, .port = 2}); });
  EXPECT_TRUE(groupCopies(3, {5, 6}));
  EXPECT_EQ(writeGroupWhile([&] { writeCorvexGroup(3); })->bucket(), oneEmptyBucket);
  EXPECT_EQ(writeGroupWhile([&] { members->entryDel(5); })->buckets(), 2U)
      << "a group keeps its copies of members that go";
}

TEST_F(EcmpReentry, WhatAReactorDoesToANewMemberIsKept) {
  constexpr GroupId id = memberBase + 5;
  const auto writeMemberWhile = [this](const std::function<void()>& act) {
    members->entryDelAll();
    onNextGroup(act);
    writeMember({.id = 5});
    return corvexMember(5);
  };
  EXPECT_EQ(writeMemberWhile([&] { members->entryDel(5); }), nullptr);
  EXPECT_EQ(writeMemberWhile([&] { cxHwConfig->groupEntryDel(id); }), nullptr);
  writeMemberWhile([&] { writeMember({.id = 5, .port = 2}); });
  EXPECT_EQ(memberActions(5).outputIntf().name(), "Ethernet2");
  EXPECT_EQ(writeMemberWhile([&] { writeCorvexGroup(id); })->bucket(), oneEmptyBucket);
}

// Whether the state machine is still there shows in when it goes.
TEST_F(EcmpReentry, FinishesItsWalkWhenItIsDroppedMeanwhile) {
  writeMembers({5, 6});
  writeGroup(3, {5});
  writeGroup(4, {5});
  Texts order;
  const auto restart = [&] {
    start();
    order.clear();
    return std::make_unique<Listener<>>(sm->zeroReferencesNotifiees(),
                                        [&] { order.emplace_back("gone"); });
  };
  Listener<const P4Runtime::TransactionResult&> told{
      batchStatus->resultNotifiees(), [&](const P4Runtime::TransactionResult& result) {
        sm = nullptr;
        order.push_back(std::to_string(result.handle));
      }};
  Listener<const GroupId&> written{cxHwConfig->groupEntryNotifiees(), [&](const GroupId& id) {
                                     if (!order.empty()) {
                                       sm = nullptr;
                                     }
                                     order.push_back(groupName(id));
                                   }};
  auto watch = restart();
  writeMember({.id = 5, .port = 2});
  EXPECT_THAT(order, ElementsAre("member 5", "group 3", "group 4", "gone"));
  watch = restart();
  groups->entryDel(4);
  EXPECT_THAT(order, ElementsAre("group 4", "2004", "gone"))
      << "acknowledged when it is gone from Corvex";
  watch = restart();
  encaps->entryDel(9);
  EXPECT_THAT(order, ElementsAre("1005", "1006", "gone"));
  EXPECT_EQ(cxHwConfig->references(), 1U);
}

// What is refused, what a refusal leaves behind, and what corrupt rows do.

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
  start([](auto& inputs) { inputs.validationHelper = Korm::makePtr<OwnRules>(); });
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

// Walks over members and groups are in tests/soak.
TEST_F(EcmpFailure, ACorruptRowEndsTheWalkOverItsTableAtTheStart) {
  writeEncap({.id = 10});
  writeMembers({5});
  writeMember({.id = 6, .encap = 10});
  writeGroup(3, {5});
  writeGroup(4, {6});
  corrupt(encaps, 9);
  corrupt(groups, 3);
  cxHwConfig->groupEntryDel(4);
  forgetWhatHappened();
  start();
  EXPECT_THAT(writes(), ElementsAre("written member 6")) << "for itself, not for its encapsulation";
  EXPECT_THAT(corruptions(), ElementsAre("encaps", "encaps", "groups", "groups"));
}

}  // namespace
}  // namespace OstraTest
