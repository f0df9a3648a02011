// What reactors do back while members and groups are written: they delete them, write them again,
// or drop the state machine.

#include "EcmpFixture.h"

namespace OstraTest {
namespace {

class EcmpReentry : public Ecmp {
 protected:
  EcmpReentry() {
    writeEncap({});
    start();
  }

  // Makes a reactor do this, once, when Corvex tells of the next group.
  void onNextGroup(std::function<void()> act) { reactor_.nextIs(std::move(act)); }

  // Writes a Corvex group of one empty bucket, as nobody but the library should.
  void writeCorvexGroup(GroupId id, GroupType type) {
    auto* const group = cxHwConfig->groupEntry(id);
    group->groupTypeIs(type);
    group->bucketDelAll();
    group->bucketEnq({});
    group->readyIs(true);
    group->changeCountIs(now);
  }

 private:
  Listener<const GroupId&> reactor_{cxHwConfig->groupEntryNotifiees()};
};

TEST_F(EcmpReentry, WhatAReactorToANewGroupDoesStands) {
  const OpenFlowTable::Bucket none;
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
  EXPECT_EQ(writeGroupWhile([&] { writeCorvexGroup(3, GroupType::select_); })->bucket(),
            std::vector{none});
  EXPECT_EQ(writeGroupWhile([&] { members->entryDel(5); })->buckets(), 2U)
      << "a group keeps its copies of members that go";
}

TEST_F(EcmpReentry, WhatAReactorToANewMemberDoesStands) {
  const OpenFlowTable::Bucket none;
  const auto writeMemberWhile = [this](const std::function<void()>& act) {
    members->entryDelAll();
    onNextGroup(act);
    writeMember({.id = 5});
    return corvexMember(5);
  };
  EXPECT_EQ(writeMemberWhile([&] { members->entryDel(5); }), nullptr);
  EXPECT_EQ(writeMemberWhile([&] { cxHwConfig->groupEntryDel(memberBase + 5); }), nullptr);
  writeMemberWhile([&] { writeMember({.id = 5, .port = 2}); });
  EXPECT_EQ(memberActions(5).outputIntf().name(), "Ethernet2");
  EXPECT_EQ(
      writeMemberWhile([&] { writeCorvexGroup(memberBase + 5, GroupType::indirect_); })->bucket(),
      std::vector{none});
}

// Whether the state machine is still there shows in when it goes.
TEST_F(EcmpReentry, DroppedWhileItWorksItFinishesItsWalk) {
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

}  // namespace
}  // namespace OstraTest
