// Turns action-profile members and groups into Corvex groups, and keeps these current.
//
// A member becomes an indirect group of one bucket, which describes its next hop. A group becomes a
// select group with a copy of each member's bucket, in the order of its member list. A change of a
// member, or of the encapsulation entry that it uses, rewrites the member's group and then every
// select group that lists the member.
//
// Threads: the hosting service's activity thread.
// Ownership: holds references to its inputs and owns its reactors. What it has written to Corvex
// stays when it is destroyed.
// Invariants: it keeps no copy of groups or members. The service's tables and the Corvex groups are
// all the state there is, and each handler works from what they hold at that moment. A select group
// is written only when each of its members has a group of its own.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "platform/Korm/Entity.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/OpenFlowTable/HwConfig.h"
#include "platform/P4Runtime/BatchStatus.h"
#include "platform/P4Runtime/HandleMgr.h"
#include "platform/P4Runtime/Validation.h"
#include "platform/P4RuntimeConfig/PortMappingStatus.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace Ostra {

// Why a member's or group's row cannot be programmed now.
struct ProfileRefusal {
  std::optional<P4Runtime::ErrorCode> code;  // of an entry error of the service's own
  std::string message;
  bool damaged = false;  // the stored list is damaged: a range exception
};

// What writing a member's row now would do.
struct MemberPreview {
  std::optional<ProfileRefusal> refusal;
  OpenFlowTable::Bucket bucket;  // unless refused
};

class OstraEcmpGroupSm final : public Korm::Entity {
 public:
  // Any may be null. A table that is null is as good as an empty one that never changes. Without
  // the port mapping no port is mapped. Without the batch status or the handle manager nobody is
  // told of deletes. Without the Corvex configuration or the validation helper members and groups
  // are not written.
  struct Inputs {
    Korm::Ptr<OpenFlowTable::CorvexHwConfig> cxHwConfig;
    Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable;
    Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable;
    Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> ipv4EncapTable;
    Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus;
    Korm::Ptr<P4Runtime::ValidationHelper> validationHelper;
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus;
    Korm::Ptr<P4Runtime::P4HandleMgr> p4HandleMgr;

    friend bool operator==(const Inputs&, const Inputs&) noexcept = default;
  };

  // Attaches to the tables and then processes all that they hold: encapsulation entries, members,
  // groups.
  // Throws: Korm::RangeException for a group whose stored list is damaged, as every handler does.
  explicit OstraEcmpGroupSm(Inputs inputs);

  [[nodiscard]] const Inputs& inputs() const noexcept { return inputs_; }
  // Whether the first processing of the tables has begun.
  [[nodiscard]] bool initialized() const noexcept { return initialized_; }

  // When the first processing began, in seconds since the epoch.
  [[nodiscard]] double startedAt() const noexcept { return startedAt_; }

  // What writing the row now would do, by the checks of a write. Both change nothing and trace
  // nothing.
  [[nodiscard]] MemberPreview preview(const P4RuntimeRouting::NexthopInfo& row) const;
  // Nothing for a group's row that can be programmed.
  [[nodiscard]] std::optional<ProfileRefusal> refusalOf(
      const P4RuntimeRouting::EcmpMemberList& row) const;

  // Detach from one table, for good. The Corvex groups stay as they are, and the table is still
  // read.
  void p4rtEcmpGroupTableDel() noexcept { groupReactor_.reset(); }
  void p4rtEcmpMemberTableDel() noexcept { memberReactor_.reset(); }
  void ipv4EncapTableDel() noexcept { encapReactor_.reset(); }

  // Process one key, whether its row is there or gone. An entry error is reported against its entry
  // and goes no further. A corrupt row is reported to its table and treated as absent.
  // Throws: Korm::RangeException for a group whose stored list is damaged. The member handlers read
  // the lists of all groups.
  void handleEcmpGroup(P4Runtime::MemberOrGroupId groupId);
  void handleNexthopInfo(P4Runtime::MemberOrGroupId memberId);
  // Processes the members that use the encapsulation entry.
  void handleEncapEntry(NexthopGroup::EncapId encapId);

  // Process all keys of a table, up to a corrupt row, which is reported to the table.
  void handleEcmpGroup();
  void handleNexthopInfo();
  void handleEncapEntry();

 private:
  // Switches the reactors.
  void onNotificationActive(bool active) override;

  template <class Key>
  using Handler = void (OstraEcmpGroupSm::*)(Key);
  template <class Key, Handler<Key> handler>
  using TableReactor = Korm::MemberNotifiee<OstraEcmpGroupSm, handler, const Key&>;

  void handleInitialized();
  // The same for a walk that stands on the row, which spares another look-up.
  void handleEcmpGroup(const P4RuntimeRouting::EcmpMemberList& row);
  void handleNexthopInfo(const P4RuntimeRouting::NexthopInfo& row);
  // Whether there is what it takes to check and write the Corvex group; traces the group otherwise.
  [[nodiscard]] bool canProgram(OpenFlowTable::GroupId corvexId) const noexcept;

  // Throw an entry error against the row's entry. The second returns the next hop's encapsulation.
  void validateGroup(const P4RuntimeRouting::EcmpMemberList& row) const;
  [[nodiscard]] const NexthopGroup::EncapEntry& validateNexthop(
      const P4RuntimeRouting::NexthopInfo& row) const;

  void addEcmpGroup(const P4RuntimeRouting::EcmpMemberList& row);
  void deleteEcmpGroup(P4Runtime::MemberOrGroupId groupId);
  void handleNexthopInfoUpdate(const P4RuntimeRouting::NexthopInfo& row);
  void handleNexthopInfoDelete(P4Runtime::MemberOrGroupId memberId);
  void maybeUpdateGroupOnMemberChange(P4Runtime::MemberOrGroupId memberId);

  [[nodiscard]] OpenFlowTable::Bucket memberBucket(const P4RuntimeRouting::NexthopInfo& row,
                                                   const NexthopGroup::EncapEntry& encap) const;
  // Calls put(bucket) with the bucket of each member, in the order of the list.
  template <class Put>
  void copyMemberBuckets(const P4RuntimeRouting::EcmpMemberList& row, Put put) const;
  [[nodiscard]] OpenFlowTable::GroupEntry* groupEntry(OpenFlowTable::GroupId id) const noexcept;
  // Creates a group, empty as yet. Null when a reactor that heard of it has removed or written it.
  [[nodiscard]] OpenFlowTable::GroupEntry* newGroup(OpenFlowTable::GroupId id);
  void acknowledgeDelete(P4Runtime::EntryHandle handle) const;

  const Inputs inputs_;
  bool initialized_ = false;
  double startedAt_ = 0;

  // Each there while its table is watched; released before the tables.
  std::optional<TableReactor<P4Runtime::MemberOrGroupId, &OstraEcmpGroupSm::handleEcmpGroup>>
      groupReactor_;
  std::optional<TableReactor<P4Runtime::MemberOrGroupId, &OstraEcmpGroupSm::handleNexthopInfo>>
      memberReactor_;
  std::optional<TableReactor<NexthopGroup::EncapId, &OstraEcmpGroupSm::handleEncapEntry>>
      encapReactor_;
};

// A state machine with its notifications on. The arguments are the members of
// OstraEcmpGroupSm::Inputs, in order.
template <class... Inputs>
[[nodiscard]] Korm::Ptr<OstraEcmpGroupSm> OstraEcmpGroupSmIs(Inputs&&... inputs) {
  return Korm::makeActive<OstraEcmpGroupSm>(
      OstraEcmpGroupSm::Inputs{std::forward<Inputs>(inputs)...});
}
template <class... Inputs>
[[nodiscard]] Korm::Ptr<OstraEcmpGroupSm> ostraEcmpGroupSmFactory(Inputs&&... inputs) {
  return OstraEcmpGroupSmIs(std::forward<Inputs>(inputs)...);
}

}  // namespace Ostra
