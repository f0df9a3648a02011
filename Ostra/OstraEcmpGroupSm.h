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
// Invariants: it keeps no copy of groups or members. The state is in the service's tables and in
// the Corvex groups, and each handler reads them anew. Which rows were refused is kept for audits
// alone. A select group is written only when each of its members has a Corvex group.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "platform/Korm/Entity.h"
#include "platform/Korm/HashSet.h"
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
  std::optional<P4Runtime::ErrorCode> code;  // nothing unless the error is an EntryErrorException
  std::string message;
  bool damaged = false;  // the stored list is damaged, and a write throws Korm::RangeException
};

// What writing a member's row now would do.
struct MemberPreview {
  std::optional<ProfileRefusal> refusal;
  OpenFlowTable::Bucket bucket;  // unless refused
};

class OstraEcmpGroupSm final : public Korm::Entity {
 public:
  // Any may be null. A null table is treated as an empty one that never changes. Without the port
  // mapping no port is mapped. Without the batch status or the handle manager, deletes are not
  // acknowledged. Without the Corvex configuration or the validation helper, members and groups are
  // not written.
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

  // Attaches to the tables, and then processes all encapsulation entries, members and groups.
  // Throws: Korm::RangeException for a group whose stored list is damaged, as every handler does.
  explicit OstraEcmpGroupSm(Inputs inputs);

  [[nodiscard]] const Inputs& inputs() const noexcept { return inputs_; }
  // Whether the first processing of the tables has begun.
  [[nodiscard]] bool initialized() const noexcept { return initialized_; }

  // When the first processing began, in seconds since the epoch.
  [[nodiscard]] double startedAt() const noexcept { return startedAt_; }

  // What writing the row now would do. These two make the same checks as a write, but change
  // nothing and trace nothing.
  [[nodiscard]] MemberPreview preview(const P4RuntimeRouting::NexthopInfo& row) const;
  // Nothing for a group's row that can be programmed.
  [[nodiscard]] std::optional<ProfileRefusal> refusalOf(
      const P4RuntimeRouting::EcmpMemberList& row) const;

  // Whether the row of that Corvex group was refused when it was processed last.
  [[nodiscard]] bool refused(OpenFlowTable::GroupId corvexId) const noexcept {
    return refused_.contains(corvexId);
  }

  // Stop reacting to one table, permanently. The Corvex groups stay as they are. The handlers still
  // read the table.
  void p4rtEcmpGroupTableDel() noexcept { groupReactor_.reset(); }
  void p4rtEcmpMemberTableDel() noexcept { memberReactor_.reset(); }
  void ipv4EncapTableDel() noexcept { encapReactor_.reset(); }

  // Process one key, whether it has a row or not. An entry error is reported as the result of its
  // entry and does not leave the handler. A corrupt row is reported to its table and treated as
  // missing.
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
  // The same for a walk that has the row already.
  void handleEcmpGroup(const P4RuntimeRouting::EcmpMemberList& row);
  void handleNexthopInfo(const P4RuntimeRouting::NexthopInfo& row);
  // Runs the step for the row of that Corvex group, reports an entry error, and notes a refusal.
  template <class Step>
  void process(OpenFlowTable::GroupId corvexId, Step step);
  // Whether the inputs that are needed to check and write groups are there. Otherwise traces the
  // group.
  [[nodiscard]] bool canProgram(OpenFlowTable::GroupId corvexId) const noexcept;

  // Throw an entry error if the row is refused. The second returns the next hop's encapsulation.
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
  // Creates an empty group. Null when a reactor to its creation has removed or written it.
  [[nodiscard]] OpenFlowTable::GroupEntry* newGroup(OpenFlowTable::GroupId id);
  void acknowledgeDelete(P4Runtime::EntryHandle handle) const;

  const Inputs inputs_;
  bool initialized_ = false;
  double startedAt_ = 0;
  Korm::HashSet<OpenFlowTable::GroupId> refused_;

  // Each is set while its table is watched. They are destroyed before the tables.
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
