// A service with its ECMP tables, the Corvex configuration, and an ECMP state machine between them.
//
// What happens is kept as lines, in order: writes() of Corvex groups ("created member 5", "written
// group 3", "deleted group 3") and corruptions() reported to the tables. Each call takes the lines
// since the last one.
#pragma once

#include "Ostra/OstraEcmpGroupSm.h"
#include "ServiceFixture.h"

namespace OstraTest {

using Id = P4Runtime::MemberOrGroupId;
using Ids = std::vector<Id>;
using OpenFlowTable::Action;
using OpenFlowTable::GroupId;
using OpenFlowTable::GroupType;

inline constexpr GroupId memberBase = 4294967296;

inline P4Runtime::EntryHandle memberHandle(Id id) { return 1000U + id; }
inline P4Runtime::EntryHandle groupHandle(Id id) { return 2000U + id; }

struct Member {
  Id id = 0;
  P4Runtime::P4PortId port = 1;
  NexthopGroup::EncapId encap = 9;
  Korm::EthAddr dstMac{};
  Korm::EthAddr srcMac{};
};

struct Encap {
  NexthopGroup::EncapId id = 9;
  std::uint8_t lastOctet = 1;  // of the tunnel's source 10.0.0.x and destination 10.0.1.x
  NexthopGroup::L2NhgEncapType type = NexthopGroup::L2NhgEncapType::encapIpInIp_;
};

inline std::string groupName(GroupId id) {
  return id >= memberBase ? "member " + std::to_string(id - memberBase)
                          : "group " + std::to_string(id);
}

class Ecmp : public ServiceFixture {
 protected:
  Ecmp() {
    groups->corruptionHandlerIs([this](const auto&) { corruptions_.emplace_back("groups"); });
    members->corruptionHandlerIs([this](const auto&) { corruptions_.emplace_back("members"); });
    encaps->corruptionHandlerIs([this](const auto&) { corruptions_.emplace_back("encaps"); });
  }

  void start() {
    sm = Ostra::ostraEcmpGroupSmFactory(cxHwConfig, groups, members, encaps, ports, validation,
                                        batchStatus, handles);
  }

  // What the controller and the routing feature write.
  void writeMember(const Member& member) {
    P4RuntimeRouting::NexthopInfo row;
    row.entryHandle = memberHandle(member.id);
    row.memberId = member.id;
    row.p4PortId = member.port;
    row.dstMac = P4RuntimeRouting::toLinkLayerWords(member.dstMac);
    row.srcMac = P4RuntimeRouting::toLinkLayerWords(member.srcMac);
    row.encapId = member.encap;
    handles->memberIs(member.id, row.entryHandle);
    members->entryIs(row);
  }
  void writeMembers(const Ids& ids) {
    for (const Id id : ids) {
      writeMember({.id = id});
    }
  }
  [[nodiscard]] static std::unique_ptr<P4RuntimeRouting::EcmpMemberList> groupRow(Id id,
                                                                                  const Ids& list) {
    auto row = std::make_unique<P4RuntimeRouting::EcmpMemberList>();
    row->entryHandle = groupHandle(id);
    row->groupId = id;
    row->membersIs(list);
    return row;
  }
  void writeGroup(Id id, const Ids& list) {
    handles->groupIs(id, groupHandle(id));
    groups->entryIs(*groupRow(id, list));
  }
  void writeEncap(const Encap& encap) {
    NexthopGroup::EncapEntry row;
    row.encapId = encap.id;
    row.type = encap.type;
    row.ttl = 64;
    row.dscp = 46;
    row.src = {{10, 0, 0, encap.lastOctet}};
    row.dst = {{10, 0, 1, encap.lastOctet}};
    encaps->entryIs(row);
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

}  // namespace OstraTest
